#include "cli/TiffDirectory.h"

#include "cli/ByteOrder.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <stdexcept>

namespace ulmora::cli {
namespace {

constexpr std::uint64_t kTooManyEntries = 65536;
constexpr std::uint16_t kAsciiType = 2;

// Where the fields of one TIFF form lie.
struct Layout {
  std::size_t countFieldSize;
  std::size_t entrySize;
  std::size_t valueOffset;
  std::size_t valueSize;  // also the size of every offset
};

constexpr Layout kClassicLayout{2, 12, 8, 4};
constexpr Layout kBigLayout{8, 20, 12, 8};

const Layout& LayoutOf(const TiffDirectory& directory) {
  return directory.bigTiff ? kBigLayout : kClassicLayout;
}

[[noreturn]] void Refuse(const char* what, const std::string& path) {
  throw std::invalid_argument(std::string(what) + " in " + path);
}

[[noreturn]] void RefuseTruncated(const std::string& path) {
  Refuse("Invalid or truncated TIFF metadata", path);
}

// A number as wide as an offset of this form.
std::uint64_t ReadWide(const std::uint8_t* bytes, const TiffDirectory& directory) {
  return directory.bigTiff ? Read64(bytes, directory.littleEndian) : Read32(bytes, directory.littleEndian);
}

std::uint64_t FileSize(std::istream& stream) {
  stream.clear();
  stream.seekg(0, std::ios::end);
  const std::streamoff size = stream.tellg();
  return size < 0 ? 0 : static_cast<std::uint64_t>(size);
}

// Reads the file header into the record and returns the offset of the first directory.
std::uint64_t ReadHeader(std::istream& stream, TiffDirectory& directory, const std::string& path) {
  directory.fileSize = FileSize(stream);
  std::array<std::uint8_t, 16> header{};
  if (directory.fileSize < 8) Refuse("Invalid TIFF header", path);
  ReadExact(stream, 0, header.data(), 8, path);
  if (header[0] != header[1] || (header[0] != 'I' && header[0] != 'M')) Refuse("Invalid TIFF byte order", path);
  directory.littleEndian = header[0] == 'I';
  switch (Read16(&header[2], directory.littleEndian)) {
    case 42:
      return Read32(&header[4], directory.littleEndian);
    case 43:
      ReadExact(stream, 0, header.data(), header.size(), path);
      if (Read16(&header[4], directory.littleEndian) != 8 || Read16(&header[6], directory.littleEndian) != 0) {
        Refuse("Unsupported BigTIFF offset layout", path);
      }
      directory.bigTiff = true;
      return Read64(&header[8], directory.littleEndian);
    default:
      Refuse("Unsupported TIFF version", path);
  }
}

// Takes the description from an entry if it is a usable one; otherwise leaves the record alone.
void ExamineDescription(std::istream& stream, TiffDirectory& directory, const std::vector<std::uint8_t>& entry,
                        const std::string& path) {
  if (Read16(&entry[0], directory.littleEndian) != static_cast<std::uint16_t>(TiffTag::kImageDescription) ||
      Read16(&entry[2], directory.littleEndian) != kAsciiType) {
    return;
  }
  const Layout& layout = LayoutOf(directory);
  const std::uint64_t count = ReadWide(&entry[4], directory);
  if (count == 0 || count > kMaxTiffDescriptionBytes) return;
  std::string text(static_cast<std::size_t>(count), '\0');
  if (count <= layout.valueSize) {
    std::copy_n(entry.begin() + static_cast<std::ptrdiff_t>(layout.valueOffset), count, text.begin());
  } else {
    const std::uint64_t offset = ReadWide(&entry[layout.valueOffset], directory);
    if (offset > directory.fileSize || count > directory.fileSize - offset) {
      Refuse("Invalid TIFF ImageDescription offset", path);
    }
    ReadExact(stream, offset, text.data(), text.size(), path);
  }
  text.erase(text.find_last_not_of('\0') + 1);
  directory.imageDescription = std::move(text);
}

// Reads the header and the entries of the first directory, hands each entry to `examine` as soon as it is read, and
// returns the offset behind the last one.
template <typename Examine>
std::uint64_t ReadEntries(std::istream& stream, TiffDirectory& directory, const std::string& path,
                          const Examine& examine) {
  const std::uint64_t directoryOffset = ReadHeader(stream, directory, path);
  const Layout& layout = LayoutOf(directory);

  std::array<std::uint8_t, 8> number{};
  ReadExact(stream, directoryOffset, number.data(), layout.countFieldSize, path);
  const std::uint64_t entryCount =
      directory.bigTiff ? Read64(number.data(), directory.littleEndian) : Read16(number.data(), directory.littleEndian);
  if (entryCount >= kTooManyEntries) Refuse("Unreasonably large TIFF directory", path);

  // No sum below can wrap: the count field was read, so the offset is a position in the file.
  std::uint64_t position = directoryOffset + layout.countFieldSize;
  for (std::uint64_t index = 0; index < entryCount; ++index, position += layout.entrySize) {
    std::vector<std::uint8_t> entry(layout.entrySize);
    ReadExact(stream, position, entry.data(), entry.size(), path);
    directory.entries.push_back(std::move(entry));
    examine(directory.entries.back());
  }
  return position;
}

// Size of one value of an unsigned integer type, 0 for every other type.
std::size_t UnsignedTypeSize(std::uint16_t type) {
  switch (type) {
    case 1:  // BYTE
      return 1;
    case 3:  // SHORT
      return 2;
    case 4:   // LONG
    case 13:  // IFD
      return 4;
    case 16:  // LONG8
    case 18:  // IFD8
      return 8;
    default:
      return 0;
  }
}

std::uint64_t ReadSized(const std::uint8_t* bytes, std::size_t size, bool littleEndian) {
  switch (size) {
    case 1:
      return *bytes;
    case 2:
      return Read16(bytes, littleEndian);
    case 4:
      return Read32(bytes, littleEndian);
    default:
      return Read64(bytes, littleEndian);
  }
}

}  // namespace

std::string LowercaseExtension(std::string path) {
  std::transform(path.begin(), path.end(), path.begin(),
                 [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
  return path;
}

bool IsTiffPath(const std::string& path) {
  const std::string lower = LowercaseExtension(path);
  return lower.ends_with(".tif") || lower.ends_with(".tiff");
}

void ReadExact(std::istream& stream, std::uint64_t offset, void* buffer, std::size_t size, const std::string& path) {
  // No stream has such a position, and the cast below would make it negative.
  if (offset > static_cast<std::uint64_t>(std::numeric_limits<std::streamoff>::max())) RefuseTruncated(path);
  stream.clear();
  stream.seekg(static_cast<std::streamoff>(offset), std::ios::beg);
  stream.read(static_cast<char*>(buffer), static_cast<std::streamsize>(size));
  if (!stream) RefuseTruncated(path);
}

TiffDirectory ReadDirectory(std::istream& stream, const std::string& path) {
  TiffDirectory directory;
  const std::uint64_t end = ReadEntries(stream, directory, path, [&](const std::vector<std::uint8_t>& entry) {
    ExamineDescription(stream, directory, entry, path);
  });
  std::array<std::uint8_t, 8> number{};
  ReadExact(stream, end, number.data(), LayoutOf(directory).valueSize, path);
  directory.nextDirectoryOffset = ReadWide(number.data(), directory);
  return directory;
}

TiffDirectory ReadDirectoryEntries(std::istream& stream, const std::string& path) {
  TiffDirectory directory;
  ReadEntries(stream, directory, path, [](const std::vector<std::uint8_t>&) {});
  return directory;
}

std::optional<std::vector<std::uint64_t>> ReadFieldValues(std::istream& stream, const TiffDirectory& directory,
                                                          TiffTag tag, const std::string& path) {
  const bool littleEndian = directory.littleEndian;
  const auto entry = std::find_if(directory.entries.begin(), directory.entries.end(), [&](const auto& bytes) {
    return Read16(bytes.data(), littleEndian) == static_cast<std::uint16_t>(tag);
  });
  if (entry == directory.entries.end()) return std::nullopt;
  const std::size_t size = UnsignedTypeSize(Read16(&(*entry)[2], littleEndian));
  if (size == 0) return std::nullopt;
  const std::uint64_t count = ReadWide(&(*entry)[4], directory);
  // The second test keeps a lying count from becoming an allocation that the file could never fill.
  if (count > kMaxTiffFieldValues || count * size > directory.fileSize) RefuseTruncated(path);

  const Layout& layout = LayoutOf(directory);
  const std::uint8_t* const valueField = &(*entry)[layout.valueOffset];
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(count) * size);
  if (bytes.size() <= layout.valueSize) {
    std::copy_n(valueField, bytes.size(), bytes.begin());
  } else {
    ReadExact(stream, ReadWide(valueField, directory), bytes.data(), bytes.size(), path);
  }
  std::vector<std::uint64_t> values;
  values.reserve(static_cast<std::size_t>(count));
  for (std::size_t at = 0; at < bytes.size(); at += size) values.push_back(ReadSized(&bytes[at], size, littleEndian));
  return values;
}

std::uint64_t ReadFieldValue(std::istream& stream, const TiffDirectory& directory, TiffTag tag, std::uint64_t fallback,
                             const std::string& path) {
  const auto values = ReadFieldValues(stream, directory, tag, path);
  return values && !values->empty() ? values->front() : fallback;
}

}  // namespace ulmora::cli
