// The contract's networks as scripts of the fake Core ML.
#include "tests/core/BackendContract.h"
#include "tests/core/fake_coreml/FakeCoreML.h"

#include <array>
#include <filesystem>
#include <limits>
#include <utility>

namespace ulmora::core::test {

namespace {

using fake_coreml::Element;
using fake_coreml::Model;
using fake_coreml::Outcome;
using fake_coreml::Tensor;

Model Gains(std::array<float, 3> gains) {
  Model model;
  model.network = [gains](const Tensor& input) {
    Tensor output(input.shape);
    for (long c = 0; c < 3; ++c) {
      for (long y = 0; y < input.shape[2]; ++y) {
        for (long x = 0; x < input.shape[3]; ++x) {
          output.At(c, y, x) = input.At(c, y, x) * gains[static_cast<std::size_t>(c)];
        }
      }
    }
    return output;
  };
  return model;
}

Model Giving(const Tensor& output) {
  Model model;
  model.network = [output](const Tensor&) { return output; };
  return model;
}

Model Only512() {
  Model model;
  model.predictFor = [](const Tensor& input) {
    const bool fits = input.shape == std::vector<long>{1, 3, 512, 512};
    return fits ? Outcome() : Outcome::Error("the input is not of the declared shape");
  };
  return model;
}

Model ModelOf(Network network) {
  Model model;
  switch (network) {
    case Network::Identity:
      break;
    case Network::IdentityOf512:
      return Only512();
    case Network::Half:
      return Gains({0.5F, 0.5F, 0.5F});
    case Network::ChannelGains:
      return Gains({1.0F, 0.5F, 0.25F});
    case Network::NotANumber:
      return Gains({std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::quiet_NaN(),
                    std::numeric_limits<float>::quiet_NaN()});
    case Network::TwoOutputs:
      model.outputs = {"half", "quarter"};
      break;
    case Network::Float16Output:
      return Giving(Tensor({1, 3, 512, 512}, Element::Float16));
    case Network::HalfSizeOutput:
      return Giving(Tensor({1, 3, 256, 256}));
    case Network::Rank3Output:
      return Giving(Tensor({3, 512, 512}));
    case Network::ImageOutput:
      model.network = [](const Tensor&) { return std::nullopt; };
      break;
    case Network::Untranslatable:
      model.compile = Outcome::Error("an operation that nobody has");
      break;
    case Network::WithoutConstants:
      model.load = Outcome::Error("the constants end early");
      break;
  }
  return model;
}

}  // namespace

std::string PackageOf(Network network, const ulmora::test::TemporaryFolder& folder) {
  const std::string path = folder.Path("network-" + std::to_string(static_cast<int>(network)) + ".mlpackage");
  std::filesystem::create_directories(path);
  fake_coreml::TheWorld().models[path] = ModelOf(network);
  return path;
}

}  // namespace ulmora::core::test
