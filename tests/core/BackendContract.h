#pragma once
// What the contract's cases need of the road that they run on.

#include "tests/support/TemporaryFolder.h"

#include <string>

namespace ulmora::core::test {

/// What a model package does. Where nothing else is said, with tiles of any size.
enum class Network {
  Identity,
  IdentityOf512,
  Half,
  /// Red by 1, green by 1/2, blue by 1/4.
  ChannelGains,
  NotANumber,
  TwoOutputs,
  Float16Output,
  HalfSizeOutput,
  Rank3Output,
  /// Its output is an image, no tensor.
  ImageOutput,
  /// Holds what nobody can translate.
  Untranslatable,
  /// Its constants are cut off.
  WithoutConstants,
};

/// The path of a package directory with this network; what has to be made for it is made in the folder.
[[nodiscard]] std::string PackageOf(Network network, const ulmora::test::TemporaryFolder& folder);

}  // namespace ulmora::core::test
