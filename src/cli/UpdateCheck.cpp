#include "cli/UpdateCheck.h"

namespace ulmora::cli {

const char* CurrentPlatformKey() {
#if defined(__APPLE__) && defined(__aarch64__)
  return "macos-arm64";
#elif defined(__linux__) && defined(__x86_64__)
  return "linux-x86_64";
#elif defined(__linux__) && defined(__aarch64__)
  return "linux-arm64";
#else
  return "";
#endif
}

bool UpdateCheckAvailable() {
  return false;
}

int RunUpdateCheck(const std::string& /*executableName*/, const std::string& displayName,
                   const std::string& /*version*/, const std::string& /*build*/, std::ostream& out) {
  if (*CurrentPlatformKey() == '\0') {
    out << "Update checking is not available for this platform." << std::endl;
  } else {
    out << "Update checking is not available in this " << displayName << " build." << std::endl;
  }
  return 0;
}

}  // namespace ulmora::cli
