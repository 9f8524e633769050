// Whole networks against what PyTorch made of the same input: compiled, and operation by operation.

#include "engine/Model.h"
#include "engine/package/ReadModel.h"
#include "engine/program/Interpret.h"
#include "engine/program/Specialize.h"
#include "engine/program/import/MilImport.h"
#include "engine/program/import/NeuralNetworkImport.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <fstream>
#include <sstream>

namespace ulmora::engine {
namespace {

using package::testing::Fixtures;

const Shape kShape = {1, 3, 32, 40};

struct Recorded {
  std::string name;
  double tolerance = 0;  ///< largest difference as a share of the range of the recorded output
  std::string ending = ".mlpackage";
};

void PrintTo(const Recorded& recorded, std::ostream* stream) {
  *stream << recorded.name << recorded.ending;
}

std::vector<Recorded> AllRecorded() {
  std::vector<Recorded> all;
  for (const char* list : {"recorded.txt", "recorded-neural-networks.txt"}) {
    std::ifstream stream(Fixtures() / list);
    for (std::string line; std::getline(stream, line);) {
      if (line.starts_with('#')) continue;
      Recorded recorded;
      std::istringstream(line) >> recorded.name >> recorded.tolerance;
      if (std::filesystem::exists(Fixtures() / (recorded.name + ".mlmodel"))) recorded.ending = ".mlmodel";
      all.push_back(recorded);
    }
  }
  return all;
}

/// Those that are there as a compiled bundle, too.
std::vector<Recorded> AllCompiled() {
  std::vector<Recorded> compiled = AllRecorded();
  for (Recorded& recorded : compiled) recorded.ending = ".mlmodelc";
  std::erase_if(compiled, [](const Recorded& recorded) {
    return !std::filesystem::exists(Fixtures() / (recorded.name + recorded.ending));
  });
  return compiled;
}

program::Program Import(const package::ModelSource& source) {
  return source.network ? program::ImportNeuralNetwork(source) : program::ImportMil(source);
}

std::vector<float> ReadFloats(const std::string& name) {
  const std::string bytes = package::testing::ReadFile(Fixtures() / name);
  std::vector<float> values;
  for (std::size_t i = 0; i + 4 <= bytes.size(); i += 4) {
    std::uint32_t bits = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      bits |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + k])) << (8 * k);
    }
    values.push_back(std::bit_cast<float>(bits));
  }
  return values;
}

class RecordedNetworks : public ::testing::TestWithParam<Recorded> {
 protected:
  void ExpectRecorded(std::span<const float> found) {
    const std::vector<float> expected = ReadFloats(GetParam().name + ".f32");
    ASSERT_EQ(found.size(), expected.size());
    const auto [lowest, highest] = std::minmax_element(expected.begin(), expected.end());
    double worst = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      ASSERT_TRUE(std::isfinite(found[i])) << "element " << i;
      worst = std::max(worst, std::abs(static_cast<double>(found[i]) - expected[i]));
    }
    const double share = worst / (*highest - *lowest);
    RecordProperty("share", std::to_string(share));
    EXPECT_LE(share, GetParam().tolerance);
  }

  const std::filesystem::path path_ = Fixtures() / (GetParam().name + GetParam().ending);
  const std::vector<float> input_ = ReadFloats("recorded-input.f32");
};

TEST_P(RecordedNetworks, CompiledNetworkGivesTheRecordedOutput) {
  Model model(path_);
  const std::span<float> buffer = model.BindInput(kShape);
  ASSERT_EQ(buffer.size(), input_.size());
  std::copy(input_.begin(), input_.end(), buffer.begin());
  const OutputView output = model.Run();
  EXPECT_EQ(output.shape, kShape);
  ExpectRecorded(output.data);
}

TEST_P(RecordedNetworks, ReferenceEvaluationGivesTheRecordedOutput) {
  const program::Program imported = Import(package::ReadModel(path_));
  const program::Program specialized = program::Specialize(imported, {kShape});
  const Tensor output = program::Interpret(specialized, Tensor::Floats(kShape, input_));
  EXPECT_EQ(output.shape(), kShape);
  ExpectRecorded(output.floats());
}

std::string NameOfCase(const ::testing::TestParamInfo<Recorded>& test) {
  std::string name = test.param.name;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, RecordedNetworks, ::testing::ValuesIn(AllRecorded()), NameOfCase);
INSTANTIATE_TEST_SUITE_P(Compiled, RecordedNetworks, ::testing::ValuesIn(AllCompiled()), NameOfCase);

TEST(RecordedNetworksList, IsNotEmpty) {
  EXPECT_GE(AllRecorded().size(), 27U);
  EXPECT_GE(AllCompiled().size(), 7U);
}

}  // namespace
}  // namespace ulmora::engine
