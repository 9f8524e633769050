#include "cli/TiffSamples.h"

#include "cli/ByteOrder.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <limits>
#include <string_view>

namespace ulmora::cli {
namespace {

constexpr std::uint64_t kWhiteIsZero = 0;
constexpr std::uint64_t kBlackIsZero = 1;
constexpr std::uint64_t kRgb = 2;
constexpr std::uint64_t kLumaAndChroma = 6;
constexpr std::uint64_t kDifferences = 2;
/// The largest side of an image or a tile that a new directory is written for.
constexpr std::uint64_t kLargestSide = std::numeric_limits<std::int32_t>::max();

/// Compressions that work on bytes or rows alone, and so know nothing of planes and colours: none, LZW, deflate (two
/// numbers), PackBits, LZMA, Zstandard.
bool IsLosslessBytes(std::uint64_t compression) {
  static constexpr std::array<std::uint64_t, 7> kKnown = {1, 5, 8, 32773, 32946, 34925, 50000};
  return std::find(kKnown.begin(), kKnown.end(), compression) != kKnown.end();
}

/// Photometric interpretations that no image of more than 8 bits survives in the image library: palette, CMYK, YCbCr
/// and the Lab family.
bool IsReducedToBytes(std::uint64_t photometric) {
  static constexpr std::array<std::uint64_t, 6> kReduced = {3, 5, 6, 8, 9, 10};
  return std::find(kReduced.begin(), kReduced.end(), photometric) != kReduced.end();
}

TiffReading HowToReadSeveralSamples(const TiffSamples& tiff) {
  const bool liftable = IsLosslessBytes(tiff.compression) && tiff.samples <= 4;
  if (tiff.samples == 2) {
    // With float differences the bytes of a row are shuffled by the samples in a pixel, so they cannot be re-read as
    // one sample a pixel.
    const bool plainDifferences = tiff.predictor == 1 || (tiff.predictor == kDifferences && tiff.bits <= 16);
    return liftable && (tiff.separatePlanes || plainDifferences) ? TiffReading::GrayAndExtra : TiffReading::Refused;
  }
  if (tiff.photometric == kWhiteIsZero) return TiffReading::Refused;
  if (tiff.separatePlanes) {
    if (tiff.bits == 8 && tiff.photometric == kRgb && tiff.countsSamples) return TiffReading::Plain;
    return liftable ? TiffReading::SeparatePlanes : TiffReading::Refused;
  }
  if (tiff.photometric == kRgb && tiff.countsSamples) return TiffReading::Plain;
  return liftable ? TiffReading::UnnamedColours : TiffReading::Refused;
}

/// The four bytes by which the image library knows a TIFF.
bool HasTiffSignature(std::istream& file) {
  std::array<char, 4> bytes{};
  file.read(bytes.data(), bytes.size());
  const std::string_view signature(bytes.data(), bytes.size());
  using namespace std::string_view_literals;
  return file && (signature == "II*\0"sv || signature == "MM\0*"sv || signature == "II+\0"sv || signature == "MM\0+"sv);
}

/// One field of a directory to be written, all its values of one type.
struct Field {
  TiffTag tag;
  std::vector<std::uint64_t> values;
};

constexpr std::uint16_t kShortType = 3;
constexpr std::uint16_t kLongType = 4;
constexpr std::size_t kEntryBytes = 12;

/// The chunks (strips or tiles) of a file that make up one part of it.
struct Chunks {
  std::vector<std::uint64_t> offsets;
  std::vector<std::uint64_t> counts;
};

std::optional<Chunks> FindChunks(std::istream& file, const TiffSamples& tiff, const TiffPart& part,
                                 std::uint64_t rowsPerStrip, const std::string& path) {
  const bool tiled = tiff.tileWidth != 0;
  auto offsets = ReadFieldValues(file, tiff.directory, tiled ? TiffTag::kTileOffsets : TiffTag::kStripOffsets, path);
  auto counts =
      ReadFieldValues(file, tiff.directory, tiled ? TiffTag::kTileByteCounts : TiffTag::kStripByteCounts, path);
  if (!offsets || !counts || offsets->size() != counts->size()) return std::nullopt;
  const auto ceilDivide = [](std::uint64_t a, std::uint64_t b) { return a / b + (a % b != 0 ? 1 : 0); };
  const std::uint64_t perPlane = tiled
                                     ? ceilDivide(tiff.width, tiff.tileWidth) * ceilDivide(tiff.height, tiff.tileLength)
                                     : ceilDivide(tiff.height, rowsPerStrip);
  const std::uint64_t planes = tiff.separatePlanes ? tiff.samples : 1;
  if (offsets->size() % planes != 0 || offsets->size() / planes != perPlane) return std::nullopt;
  const auto first = static_cast<std::ptrdiff_t>(part.firstPlane * perPlane);
  const auto last = first + static_cast<std::ptrdiff_t>(perPlane);
  return Chunks{{offsets->begin() + first, offsets->begin() + last}, {counts->begin() + first, counts->begin() + last}};
}

/// The bytes of all chunks behind a header of 8 bytes, and where each begins there. Empty if they are more than the
/// file has, as only a hostile one would say, or more than a classic TIFF and the image library can take.
std::vector<std::uint8_t> CopyChunks(std::istream& file, const TiffSamples& tiff, Chunks& chunks,
                                     const std::string& path) {
  constexpr std::uint64_t kHeaderBytes = 8;
  constexpr std::uint64_t kMostBytes = std::numeric_limits<std::int32_t>::max() - (std::uint64_t{1} << 28);
  std::uint64_t total = 0;
  for (const std::uint64_t count : chunks.counts) {
    if (count > tiff.directory.fileSize - total) return {};
    total += count;
  }
  if (total > kMostBytes) return {};
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(kHeaderBytes + total));
  std::uint64_t at = kHeaderBytes;
  for (std::size_t i = 0; i < chunks.counts.size(); ++i) {
    if (chunks.counts[i] != 0) {
      ReadExact(file, chunks.offsets[i], bytes.data() + at, static_cast<std::size_t>(chunks.counts[i]), path);
    }
    chunks.offsets[i] = at;
    at += chunks.counts[i];
  }
  if (bytes.size() % 2 != 0) bytes.push_back(0);  // directories begin at even offsets
  return bytes;
}

void AppendNumber(std::vector<std::uint8_t>& bytes, std::uint64_t value, std::uint16_t type, bool littleEndian) {
  const std::size_t at = bytes.size();
  bytes.resize(at + (type == kShortType ? 2 : 4));
  if (type == kShortType) {
    Write16(bytes.data() + at, static_cast<std::uint16_t>(value), littleEndian);
  } else {
    Write32(bytes.data() + at, static_cast<std::uint32_t>(value), littleEndian);
  }
}

/// Appends the values that do not fit in their entries, then the directory, and enters its offset in the header.
void AppendDirectory(std::vector<std::uint8_t>& bytes, const std::vector<Field>& fields, bool littleEndian) {
  std::vector<std::uint8_t> entries;
  for (const Field& field : fields) {
    const bool wide = std::any_of(field.values.begin(), field.values.end(), [](std::uint64_t v) { return v > 0xFFFF; });
    const std::uint16_t type = wide ? kLongType : kShortType;
    std::vector<std::uint8_t> values;
    for (const std::uint64_t value : field.values) AppendNumber(values, value, type, littleEndian);
    AppendNumber(entries, static_cast<std::uint16_t>(field.tag), kShortType, littleEndian);
    AppendNumber(entries, type, kShortType, littleEndian);
    AppendNumber(entries, field.values.size(), kLongType, littleEndian);
    if (values.size() > 4) {
      AppendNumber(entries, bytes.size(), kLongType, littleEndian);
      values.resize(values.size() + values.size() % 2);
      bytes.insert(bytes.end(), values.begin(), values.end());
    } else {
      values.resize(4);
      entries.insert(entries.end(), values.begin(), values.end());
    }
  }
  const char order = littleEndian ? 'I' : 'M';
  bytes[0] = bytes[1] = static_cast<std::uint8_t>(order);
  Write16(bytes.data() + 2, 42, littleEndian);
  Write32(bytes.data() + 4, static_cast<std::uint32_t>(bytes.size()), littleEndian);
  AppendNumber(bytes, entries.size() / kEntryBytes, kShortType, littleEndian);
  bytes.insert(bytes.end(), entries.begin(), entries.end());
  AppendNumber(bytes, 0, kLongType, littleEndian);
}

}  // namespace

std::optional<TiffSamples> InspectTiff(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!HasTiffSignature(file)) return std::nullopt;
  TiffSamples tiff;
  tiff.directory = ReadDirectoryEntries(file, path);
  const auto value = [&](TiffTag tag, std::uint64_t fallback) {
    return ReadFieldValue(file, tiff.directory, tag, fallback, path);
  };
  tiff.width = value(TiffTag::kImageWidth, 0);
  tiff.height = value(TiffTag::kImageLength, 0);
  tiff.bits = value(TiffTag::kBitsPerSample, 1);
  tiff.compression = value(TiffTag::kCompression, 1);
  tiff.photometric = value(TiffTag::kPhotometric, kBlackIsZero);
  const std::uint64_t samples = value(TiffTag::kSamplesPerPixel, 0);
  tiff.countsSamples = samples != 0;
  const bool coloured = tiff.photometric == kRgb || tiff.photometric == kLumaAndChroma;
  tiff.samples = tiff.countsSamples ? samples : coloured ? 3 : 1;
  tiff.sampleFormat = value(TiffTag::kSampleFormat, 1);
  tiff.predictor = value(TiffTag::kPredictor, 1);
  tiff.tileWidth = value(TiffTag::kTileWidth, 0);
  tiff.tileLength = value(TiffTag::kTileLength, 0);
  tiff.separatePlanes = value(TiffTag::kPlanarConfiguration, 1) == 2;
  return tiff;
}

TiffReading HowToRead(const TiffSamples& tiff) {
  if (tiff.bits > 8 && IsReducedToBytes(tiff.photometric)) return TiffReading::Refused;
  if (tiff.photometric > kRgb) return TiffReading::Plain;
  if (tiff.samples >= 2) return HowToReadSeveralSamples(tiff);
  const bool inverted = tiff.photometric == kWhiteIsZero && tiff.bits > 8 && tiff.bits <= 16 && tiff.sampleFormat == 1;
  return inverted ? TiffReading::InvertedLevels : TiffReading::Plain;
}

std::vector<std::uint8_t> LiftTiffPart(const std::string& path, const TiffSamples& tiff, const TiffPart& part) {
  constexpr auto kFillOrder = static_cast<TiffTag>(266);
  std::ifstream file(path, std::ios::binary);
  if (tiff.width == 0 || tiff.height == 0 || (tiff.tileWidth != 0) != (tiff.tileLength != 0)) return {};
  if (std::max({tiff.width, tiff.height, tiff.tileWidth, tiff.tileLength}) > kLargestSide / part.widthFactor) return {};
  const auto value = [&](TiffTag tag, std::uint64_t fallback) {
    return ReadFieldValue(file, tiff.directory, tag, fallback, path);
  };
  const std::uint64_t rowsPerStrip =
      std::clamp<std::uint64_t>(value(TiffTag::kRowsPerStrip, tiff.height), 1, tiff.height);
  std::optional<Chunks> chunks = FindChunks(file, tiff, part, rowsPerStrip, path);
  if (!chunks) return {};
  std::vector<std::uint8_t> bytes = CopyChunks(file, tiff, *chunks, path);
  if (bytes.empty()) return {};

  const bool tiled = tiff.tileWidth != 0;
  const auto perSample = [&](std::uint64_t v) { return std::vector<std::uint64_t>(part.samples, v); };
  std::vector<Field> fields = {{TiffTag::kImageWidth, {tiff.width * part.widthFactor}},
                               {TiffTag::kImageLength, {tiff.height}},
                               {TiffTag::kBitsPerSample, perSample(tiff.bits)},
                               {TiffTag::kCompression, {tiff.compression}},
                               {TiffTag::kPhotometric, {part.photometric}},
                               {kFillOrder, {value(kFillOrder, 1)}}};
  if (!tiled) fields.push_back({TiffTag::kStripOffsets, chunks->offsets});
  if (part.keepOrientation) fields.push_back({TiffTag::kOrientation, {value(TiffTag::kOrientation, 1)}});
  fields.push_back({TiffTag::kSamplesPerPixel, {part.samples}});
  if (!tiled) {
    fields.push_back({TiffTag::kRowsPerStrip, {rowsPerStrip}});
    fields.push_back({TiffTag::kStripByteCounts, chunks->counts});
  }
  fields.push_back({TiffTag::kPlanarConfiguration, {1}});
  if (part.keepPredictor) fields.push_back({TiffTag::kPredictor, {tiff.predictor}});
  if (tiled) {
    fields.push_back({TiffTag::kTileWidth, {tiff.tileWidth * part.widthFactor}});
    fields.push_back({TiffTag::kTileLength, {tiff.tileLength}});
    fields.push_back({TiffTag::kTileOffsets, chunks->offsets});
    fields.push_back({TiffTag::kTileByteCounts, chunks->counts});
  }
  fields.push_back({TiffTag::kSampleFormat, perSample(tiff.sampleFormat)});
  AppendDirectory(bytes, fields, tiff.directory.littleEndian);
  return bytes;
}

}  // namespace ulmora::cli
