#pragma once
// The answer to --check-updates. The program has no means of fetching anything.

#include <ostream>
#include <string>

namespace ulmora::cli {

/// The key of this build's platform in a release manifest, as "macos-arm64"; empty for a platform without one.
[[nodiscard]] const char* CurrentPlatformKey();

/// Whether this build can check for updates.
[[nodiscard]] bool UpdateCheckAvailable();

/// Writes one sentence to `out` and returns the exit status, 0.
int RunUpdateCheck(const std::string& executableName, const std::string& displayName, const std::string& version,
                   const std::string& build, std::ostream& out);

}  // namespace ulmora::cli
