#include "cli/FitsPath.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace ulmora::cli {

bool IsFitsPath(const std::string& path) {
  static constexpr std::array<std::string_view, 6> kEndings = {".fit",    ".fits",    ".fts",
                                                               ".fit.gz", ".fits.gz", ".fts.gz"};
  std::string lower = path;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::any_of(kEndings.begin(), kEndings.end(),
                     [&](std::string_view ending) { return lower.ends_with(ending); });
}

}  // namespace ulmora::cli
