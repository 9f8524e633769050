#pragma once
// Puts an AstroTIFF header into a finished TIFF file: text and a new first directory behind the old end of the file,
// then one small write that makes the new directory the first. No byte of image data moves.

#include <istream>
#include <string>

namespace ulmora::cli {

/// The header with its BITPIX line saying `bitpix`, 8 or 16: every line that starts with "BITPIX  " is replaced whole,
/// or one is inserted as the second line. Lines come out ended by line feeds alone, the last one by nothing. Throws
/// std::invalid_argument for another bitpix and for a text that is no AstroTIFF header.
[[nodiscard]] std::string UpdateAstroTiffBitpix(const std::string& header, int bitpix);

/// Makes `header` the ImageDescription of the first image of an existing TIFF file, in place of any that it has. Throws
/// std::invalid_argument; all that can be refused is refused before the file is changed, and whenever it fails the
/// image is still readable through the old directory.
void WriteAstroTiffHeader(const std::string& path, const std::string& header);

/// The same on a stream that is open for reading and writing; `path` only names it in messages.
void WriteAstroTiffHeader(std::iostream& stream, const std::string& path, const std::string& header);

}  // namespace ulmora::cli
