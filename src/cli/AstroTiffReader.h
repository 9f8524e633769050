#pragma once
// The FITS-style text header that astronomy software puts into the ImageDescription of a TIFF file: the AstroTIFF
// header.

#include <string>

namespace ulmora::cli {

/// Whether a text is an AstroTIFF header: it begins with SIMPLE, and its last line, with NUL bytes and line ends behind
/// it taken off, begins with END. A text without any line feed never is.
[[nodiscard]] bool IsAstroTiffHeader(const std::string& text);

/// The AstroTIFF header of the first image in the file, without its trailing NUL bytes; empty if the file has no
/// ImageDescription or an ordinary one. Throws std::invalid_argument if the file cannot be opened or is no sound TIFF.
[[nodiscard]] std::string ReadAstroTiffHeader(const std::string& path);

}  // namespace ulmora::cli
