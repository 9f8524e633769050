#pragma once
// The first image directory of a classic or Big TIFF file, as raw entries and as values on request.
//
// Grammar; every number stands in the byte order of the file, sizes are in bytes, classic / BigTIFF:
//   1. file      = header, anything; every offset counts from the start of the file
//   2. header    = order(2: "II" little, "MM" big), version(2: 42 / 43),
//                  in BigTIFF also offset size(2: 8) and a constant(2: 0), offset of the first directory(4 / 8)
//   3. directory = entry count(2 / 8), entries, offset of the next directory(4 / 8)
//   4. entry     = tag(2), type(2), count(4 / 8), value or its offset(4 / 8)
//   5. value     = `count` numbers of the type's size; in the entry if all fit in its value field, else at the offset

#include <cstddef>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace ulmora::cli {

/// Bound on the text of an ImageDescription, its NUL included: a corrupt count must not become a huge allocation.
inline constexpr std::uint64_t kMaxTiffDescriptionBytes = 16777216;

/// Bound on the values of any other field. Generous: the largest image that we decode has 2^20 rows, so as many strips.
inline constexpr std::uint64_t kMaxTiffFieldValues = 16777216;

/// Tags of the fields that decide how a file's samples are to be read, and of the description.
enum class TiffTag : std::uint16_t {
  kImageWidth = 256,
  kImageLength = 257,
  kBitsPerSample = 258,
  kCompression = 259,
  kPhotometric = 262,
  kImageDescription = 270,
  kStripOffsets = 273,
  kOrientation = 274,
  kSamplesPerPixel = 277,
  kRowsPerStrip = 278,
  kStripByteCounts = 279,
  kPlanarConfiguration = 284,
  kPredictor = 317,
  kTileWidth = 322,
  kTileLength = 323,
  kTileOffsets = 324,
  kTileByteCounts = 325,
  kExtraSamples = 338,
  kSampleFormat = 339,
};

struct TiffDirectory {
  bool littleEndian = true;
  bool bigTiff = false;
  std::uint64_t fileSize = 0;
  /// Raw bytes of each entry in file order, 12 long, or 20 in BigTIFF.
  std::vector<std::vector<std::uint8_t>> entries;
  /// As stored behind the last entry; not followed.
  std::uint64_t nextDirectoryOffset = 0;
  /// Text of the last usable ImageDescription (ASCII, 1 byte to 16 MiB) without its trailing NUL bytes.
  std::string imageDescription;
};

/// Lowercases the whole path, byte by byte.
[[nodiscard]] std::string LowercaseExtension(std::string path);

/// Whether the path ends in ".tif" or ".tiff" in any letter case. The file is not opened.
[[nodiscard]] bool IsTiffPath(const std::string& path);

/// Reads the header and the first directory of the file behind `stream`, whatever the state and position of the stream;
/// `path` only names the file in messages. Throws std::invalid_argument for a file that is no TIFF, or is cut or
/// corrupt.
[[nodiscard]] TiffDirectory ReadDirectory(std::istream& stream, const std::string& path);

/// The same without what only the description needs: damage there, or behind the entries, does not matter. The record
/// has neither a description nor the offset of a next directory.
[[nodiscard]] TiffDirectory ReadDirectoryEntries(std::istream& stream, const std::string& path);

/// Clears the stream's state and reads exactly `size` bytes at `offset` of the file. Throws std::invalid_argument
/// "Invalid or truncated TIFF metadata in <path>" if the file does not have them.
void ReadExact(std::istream& stream, std::uint64_t offset, void* buffer, std::size_t size, const std::string& path);

/// All values of the field `tag`, in order, widened to 64 bits. Empty if the directory has no such field or it isn't of
/// an unsigned integer type (BYTE, SHORT, LONG, LONG8 and the two directory-offset types). The first of several fields
/// with one tag counts, as in the decoder behind cv::imread. Throws std::invalid_argument, with the text of ReadExact,
/// for values outside the file, and for more than kMaxTiffFieldValues of them.
[[nodiscard]] std::optional<std::vector<std::uint64_t>> ReadFieldValues(std::istream& stream,
                                                                        const TiffDirectory& directory, TiffTag tag,
                                                                        const std::string& path);

/// The first value of the field, or `fallback` where ReadFieldValues gives nothing or no values.
[[nodiscard]] std::uint64_t ReadFieldValue(std::istream& stream, const TiffDirectory& directory, TiffTag tag,
                                           std::uint64_t fallback, const std::string& path);

}  // namespace ulmora::cli
