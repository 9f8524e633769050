#include "cli/ModelLookup.h"

#include <cstddef>
#include <unistd.h>

namespace ulmora::cli {

std::string GetExecutablePath() {
  // readlink does not tell how long a link is, only that it filled the buffer.
  for (std::size_t size = 256; size <= (1U << 20); size *= 2) {
    std::string path(size, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length < 0) return {};
    if (static_cast<std::size_t>(length) < path.size()) return path.substr(0, static_cast<std::size_t>(length));
  }
  return {};
}

}  // namespace ulmora::cli
