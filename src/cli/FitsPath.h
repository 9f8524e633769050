#pragma once
// Which paths name FITS files. The name alone decides; nothing is opened.

#include <string>

namespace ulmora::cli {

/// The text with each byte, taken as unsigned, through tolower.
[[nodiscard]] std::string Lowercase(std::string text);

/// Whether the path ends, in any letter case, in .fit, .fits, .fts or one of these followed by .gz.
[[nodiscard]] bool IsFitsPath(const std::string& path);

}  // namespace ulmora::cli
