#include "cli/FitsPath.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace ulmora::cli {

std::string Lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool IsFitsPath(const std::string& path) {
  static constexpr std::array<std::string_view, 6> kEndings = {".fit",    ".fits",    ".fts",
                                                               ".fit.gz", ".fits.gz", ".fts.gz"};
  const std::string lower = Lowercase(path);
  return std::any_of(kEndings.begin(), kEndings.end(),
                     [&](std::string_view ending) { return lower.ends_with(ending); });
}

}  // namespace ulmora::cli
