#include "cli/ModelLookup.h"

#include <cstdint>
#include <mach-o/dyld.h>

namespace ulmora::cli {

std::string GetExecutablePath() {
  // Without room the call fails and tells how much it wants, the end of the string included.
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::string path(size, '\0');
  if (_NSGetExecutablePath(path.data(), &size) != 0) return {};
  return path.c_str();
}

}  // namespace ulmora::cli
