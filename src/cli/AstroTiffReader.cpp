#include "cli/AstroTiffReader.h"

#include "cli/TiffDirectory.h"

#include <fstream>
#include <stdexcept>

namespace ulmora::cli {

bool IsAstroTiffHeader(const std::string& text) {
  if (!text.starts_with("SIMPLE")) return false;
  std::size_t end = text.size();
  while (end > 0 && (text[end - 1] == '\0' || text[end - 1] == '\r' || text[end - 1] == '\n')) --end;
  const std::size_t lineFeed = text.rfind('\n', end == 0 ? 0 : end - 1);
  const std::size_t lastLine = lineFeed == std::string::npos ? 0 : lineFeed + 1;
  return end >= lastLine + 3 && text.compare(lastLine, 3, "END") == 0;
}

std::string ReadAstroTiffHeader(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw std::invalid_argument("Unable to open TIFF metadata: " + path);
  const TiffDirectory directory = ReadDirectory(stream, path);
  return IsAstroTiffHeader(directory.imageDescription) ? directory.imageDescription : std::string();
}

}  // namespace ulmora::cli
