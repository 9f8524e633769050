#pragma once
// The product's names and version, as every text of the program uses them.

namespace ulmora::cli {

inline constexpr const char* kExecutableName = "lumvane";
inline constexpr const char* kDisplayName = "Lumvane";
/// The build gives version and build number; they stand in one file there.
inline constexpr const char* kVersion = LUMVANE_VERSION;
/// Four digits, leading zero included.
inline constexpr const char* kBuildNumber = LUMVANE_BUILD_NUMBER;
/// The default packages of model versions 1 and 2.
inline constexpr const char* kPackageV1 = "Lumvane_weights_v1.mlpackage";
inline constexpr const char* kPackageV2 = "Lumvane_weights_v2.mlpackage";

}  // namespace ulmora::cli
