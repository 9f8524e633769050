// The contract's networks as packages on disk.
#include "tests/core/BackendContract.h"

#include <filesystem>
#include <stdexcept>

namespace ulmora::core::test {

namespace {

namespace fs = std::filesystem;

std::string Fixture(const std::string& name) {
  return LUMVANE_SOURCE_DIR "/tests/fixtures/packages/" + name + ".mlpackage";
}

std::string WithoutConstants(const std::string& path) {
  fs::copy(Fixture("unet-ios15-float16"), path, fs::copy_options::recursive);
  fs::permissions(path, fs::perms::owner_all);
  fs::resize_file(path + "/Data/com.apple.CoreML/weights/weight.bin", 64);
  return path;
}

}  // namespace

std::string PackageOf(Network network, const ulmora::test::TemporaryFolder& folder) {
  switch (network) {
    case Network::Identity:
      return Fixture("identity");
    case Network::IdentityOf512:
      return Fixture("identity-fixed-512");
    case Network::Half:
      return Fixture("gain-half");
    case Network::ChannelGains:
      return Fixture("channel-gains");
    case Network::NotANumber:
      return Fixture("nan-output");
    case Network::TwoOutputs:
      return Fixture("two-outputs");
    case Network::Float16Output:
      return Fixture("float16-output");
    case Network::HalfSizeOutput:
      return Fixture("half-size-output");
    case Network::Rank3Output:
      return Fixture("rank-3-output");
    case Network::ImageOutput:
      return Fixture("image-output");
    case Network::Untranslatable:
      return Fixture("unknown-operation");
    case Network::WithoutConstants:
      return WithoutConstants(folder.Path("cut.mlpackage"));
  }
  throw std::logic_error("no such network");
}

}  // namespace ulmora::core::test
