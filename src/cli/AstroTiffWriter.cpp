#include "cli/AstroTiffWriter.h"

#include "cli/AstroTiffReader.h"
#include "cli/ByteOrder.h"
#include "cli/TiffDirectory.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace ulmora::cli {
namespace {

constexpr std::uint64_t kMaxClassicOffset = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kMaxClassicEntries = std::numeric_limits<std::uint16_t>::max();
constexpr auto kDescriptionTag = static_cast<std::uint16_t>(TiffTag::kImageDescription);
constexpr std::uint16_t kAsciiType = 2;

// What is appended, and where.
struct Addition {
  std::string text;  // with its NUL
  std::uint64_t textOffset = 0;
  std::uint64_t directoryOffset = 0;
};

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end = 0; end != std::string::npos; start = end + 1) {
    end = text.find('\n', start);
    lines.push_back(text.substr(start, end == std::string::npos ? end : end - start));
    if (lines.back().ends_with('\r')) lines.back().pop_back();
  }
  return lines;
}

std::string JoinLines(const std::vector<std::string>& lines) {
  std::string text;
  const std::size_t count = lines.size() - (lines.back().empty() ? 1 : 0);
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) text += '\n';
    text += lines[i];
  }
  return text;
}

void RequireHeader(const std::string& header) {
  if (!IsAstroTiffHeader(header)) {
    throw std::invalid_argument("AstroTIFF metadata must start with SIMPLE and end with END.");
  }
}

std::uint64_t RoundUp(std::uint64_t value, std::uint64_t alignment) {
  return (value + alignment - 1) / alignment * alignment;
}

std::uint64_t DirectorySize(const TiffDirectory& directory) {
  return directory.bigTiff ? 8 + 20 * directory.entries.size() + 8 : 2 + 12 * directory.entries.size() + 4;
}

Addition PlaceAddition(const TiffDirectory& directory, const std::string& header, const std::string& path) {
  const std::uint64_t alignment = directory.bigTiff ? 8 : 2;
  Addition addition;
  addition.text = header;
  addition.text += '\0';
  addition.textOffset = RoundUp(directory.fileSize, alignment);
  addition.directoryOffset = RoundUp(addition.textOffset + addition.text.size(), alignment);
  if (!directory.bigTiff && (addition.textOffset > kMaxClassicOffset || addition.directoryOffset > kMaxClassicOffset)) {
    throw std::invalid_argument("Classic TIFF output is too large to append AstroTIFF metadata: " + path);
  }
  return addition;
}

std::vector<std::uint8_t> DescriptionEntry(const TiffDirectory& directory, const Addition& addition) {
  const bool littleEndian = directory.littleEndian;
  std::vector<std::uint8_t> entry(directory.bigTiff ? 20 : 12);
  Write16(&entry[0], kDescriptionTag, littleEndian);
  Write16(&entry[2], kAsciiType, littleEndian);
  if (directory.bigTiff) {
    Write64(&entry[4], addition.text.size(), littleEndian);
    Write64(&entry[12], addition.textOffset, littleEndian);
  } else {
    // Both fit: the text is at most 16 MiB and PlaceAddition has checked the offset.
    Write32(&entry[4], static_cast<std::uint32_t>(addition.text.size()), littleEndian);
    Write32(&entry[8], static_cast<std::uint32_t>(addition.textOffset), littleEndian);
  }
  return entry;
}

// Turns the directory into the new one: its description is the appended text, its entries are in tag order.
void ReplaceDescription(TiffDirectory& directory, const Addition& addition, const std::string& path) {
  const auto tag = [&](const std::vector<std::uint8_t>& entry) { return Read16(entry.data(), directory.littleEndian); };
  directory.entries.push_back(DescriptionEntry(directory, addition));
  if (!directory.bigTiff && directory.entries.size() > kMaxClassicEntries) {
    throw std::invalid_argument("Classic TIFF directory has no room for AstroTIFF metadata: " + path);
  }
  std::sort(directory.entries.begin(), directory.entries.end(),
            [&](const auto& a, const auto& b) { return tag(a) < tag(b); });
  if (!directory.bigTiff && DirectorySize(directory) > kMaxClassicOffset - addition.directoryOffset) {
    throw std::invalid_argument("Classic TIFF output is too large to append an AstroTIFF directory: " + path);
  }
}

void WriteBytes(std::ostream& stream, const void* bytes, std::size_t size) {
  stream.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
}

// Writes a number in `size` bytes, 2, 4 or 8.
void WriteNumber(std::ostream& stream, std::uint64_t value, std::size_t size, bool littleEndian) {
  std::array<std::uint8_t, 8> bytes{};
  if (size == 2) {
    Write16(bytes.data(), static_cast<std::uint16_t>(value), littleEndian);
  } else if (size == 4) {
    Write32(bytes.data(), static_cast<std::uint32_t>(value), littleEndian);
  } else {
    Write64(bytes.data(), value, littleEndian);
  }
  WriteBytes(stream, bytes.data(), size);
}

void Append(std::ostream& stream, const TiffDirectory& directory, const Addition& addition, const std::string& path) {
  // Seeking beyond the end leaves a gap that the file system fills with zeros; nothing refers to it.
  stream.seekp(static_cast<std::streamoff>(addition.textOffset), std::ios::beg);
  WriteBytes(stream, addition.text.data(), addition.text.size());
  stream.seekp(static_cast<std::streamoff>(addition.directoryOffset), std::ios::beg);
  WriteNumber(stream, directory.entries.size(), directory.bigTiff ? 8 : 2, directory.littleEndian);
  for (const auto& entry : directory.entries) WriteBytes(stream, entry.data(), entry.size());
  WriteNumber(stream, directory.nextDirectoryOffset, directory.bigTiff ? 8 : 4, directory.littleEndian);
  stream.flush();
  if (!stream) throw std::invalid_argument("Unable to append AstroTIFF metadata to " + path);
}

void Activate(std::ostream& stream, const TiffDirectory& directory, const Addition& addition, const std::string& path) {
  const std::size_t offsetSize = directory.bigTiff ? 8 : 4;
  stream.seekp(static_cast<std::streamoff>(offsetSize), std::ios::beg);  // the field stands at the same number
  WriteNumber(stream, addition.directoryOffset, offsetSize, directory.littleEndian);
  stream.flush();
  if (!stream) throw std::invalid_argument("Unable to activate AstroTIFF metadata in " + path);
}

void CheckWritable(const std::string& header) {
  RequireHeader(header);
  if (header.size() + 1 > kMaxTiffDescriptionBytes) {
    throw std::invalid_argument("AstroTIFF metadata exceeds the supported 16 MiB limit.");
  }
}

}  // namespace

std::string UpdateAstroTiffBitpix(const std::string& header, int bitpix) {
  RequireHeader(header);
  if (bitpix != 8 && bitpix != 16) throw std::invalid_argument("AstroTIFF output BITPIX must be 8 or 16.");
  std::vector<std::string> lines = SplitLines(header);
  const std::string bitpixLine = "BITPIX  =                   " + std::to_string(bitpix);
  bool found = false;
  for (std::string& line : lines) {
    if (!line.starts_with("BITPIX  ")) continue;
    line = bitpixLine;
    found = true;
  }
  if (!found) lines.insert(lines.begin() + 1, bitpixLine);
  return JoinLines(lines);
}

void WriteAstroTiffHeader(const std::string& path, const std::string& header) {
  CheckWritable(header);
  std::fstream stream(path, std::ios::in | std::ios::out | std::ios::binary);
  if (!stream) throw std::invalid_argument("Unable to open TIFF output metadata: " + path);
  WriteAstroTiffHeader(stream, path, header);
}

void WriteAstroTiffHeader(std::iostream& stream, const std::string& path, const std::string& header) {
  CheckWritable(header);
  TiffDirectory directory = ReadDirectory(stream, path);
  std::erase_if(directory.entries,
                [&](const auto& entry) { return Read16(entry.data(), directory.littleEndian) == kDescriptionTag; });
  const Addition addition = PlaceAddition(directory, header, path);
  ReplaceDescription(directory, addition, path);
  stream.clear();
  Append(stream, directory, addition, path);
  Activate(stream, directory, addition, path);
}

}  // namespace ulmora::cli
