#pragma once
// Which paths name FITS files. The name alone decides; nothing is opened.

#include <string>

namespace ulmora::cli {

/// Whether the path ends, in any letter case, in .fit, .fits, .fts or one of these followed by .gz.
[[nodiscard]] bool IsFitsPath(const std::string& path);

}  // namespace ulmora::cli
