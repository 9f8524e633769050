#pragma once
// Reads a release manifest by string search, which is what its format promises to bear, and orders versions.

#include <string>

namespace ulmora::cli {

/// The latest release of one tool on one platform, texts as they stand in the manifest.
struct LatestRelease {
  std::string version;
  std::string build;
  std::string download_url;  ///< not decoded: escapes stay
};

/// Takes the latest release of `tool` on `platform` from a manifest of schema "quorvanthine.cli-tools.latest.v1". False
/// for a malformed manifest, another schema, a missing tool or platform, and a missing or empty text; what was found
/// until then stays in `release`. Never throws on bad input.
[[nodiscard]] bool ParseLatestRelease(const std::string& manifest, const std::string& tool, const std::string& platform,
                                      LatestRelease& release);

/// -1, 0 or 1: dotted versions part by part as numbers, missing parts 0, text behind the digits ignored; between equal
/// versions the first number in the build texts decides.
[[nodiscard]] int CompareVersionBuild(const std::string& versionA, const std::string& buildA,
                                      const std::string& versionB, const std::string& buildB);

}  // namespace ulmora::cli
