#include "engine/package/WeightFile.h"

#include "engine/package/ByteReader.h"
#include "engine/package/ElementDecoding.h"
#include "engine/package/Text.h"

#include <array>
#include <limits>
#include <optional>
#include <utility>

namespace ulmora::engine::package {
namespace {

constexpr std::uint64_t kHeaderBytes = 64;
constexpr std::uint64_t kMetadataBytes = 64;
constexpr std::uint32_t kVersion = 2;
constexpr std::uint32_t kSentinel = 0xDEADBEEF;

struct Metadata {
  std::uint32_t sentinel = 0;
  std::uint32_t type = 0;
  std::uint64_t size = 0;
  std::uint64_t offset = 0;
  std::uint64_t unusedBits = 0;
};

/// The numbering of element types in weight files, from 1.
std::optional<ElementType> TypeOfNumber(std::uint32_t number) {
  using enum ElementType;
  static constexpr std::array kTypes = {Float16, Float32, UInt8,  Int8,         BFloat16,  Int16,
                                        UInt16,  Int4,    UInt1,  UInt2,        UInt4,     UInt3,
                                        UInt6,   Int32,   UInt32, Float8E4M3FN, Float8E5M2};
  if (number < 1 || number > kTypes.size()) return std::nullopt;
  return kTypes[number - 1];
}

std::optional<Metadata> ReadMetadata(std::span<const std::byte> file, std::uint64_t offset) {
  const auto bytes = Slice(file, offset, kMetadataBytes);
  if (!bytes) return std::nullopt;
  ByteReader reader(*bytes);
  // The slice is long enough for all of them.
  return Metadata{*reader.U32(), *reader.U32(), *reader.U64(), *reader.U64(), *reader.U64()};
}

std::string Hexadecimal(std::uint32_t value) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text = "0x";
  for (int shift = 28; shift >= 0; shift -= 4) text += kDigits[(value >> shift) & 0xFU];
  return text;
}

[[noreturn]] void FailRecord(const std::string& file, std::uint64_t offset, const std::string& message) {
  throw Error(Stage::Load, "record at offset " + std::to_string(offset) + " of " + file + ": " + message);
}

void CheckType(const std::string& file, std::uint64_t offset, const Metadata& metadata, ElementType type) {
  if (metadata.sentinel != kSentinel) {
    FailRecord(file, offset, "starts with " + Hexadecimal(metadata.sentinel) + ", expected " + Hexadecimal(kSentinel));
  }
  const std::optional<ElementType> found = TypeOfNumber(metadata.type);
  if (!found) FailRecord(file, offset, "has the unknown element type number " + std::to_string(metadata.type));
  if (*found != type) {
    FailRecord(file, offset,
               "holds " + std::string(NameOf(*found)) + " elements, expected " + std::string(NameOf(type)));
  }
}

void CheckSize(const std::string& file, std::uint64_t offset, const Metadata& metadata, ElementType type,
               const Shape& shape) {
  const std::int64_t count = ElementCount(shape);
  const std::int64_t expected = PackedBytes(type, count);
  if (std::cmp_not_equal(metadata.size, expected)) {
    FailRecord(file, offset,
               "holds " + std::to_string(metadata.size) + " bytes, expected " + std::to_string(expected) + " for " +
                   std::string(NameOf(type)) + " " + ToString(shape));
  }
  if (PackedBits(type) >= 8) return;
  const std::int64_t unused = expected * 8 - count * PackedBits(type);
  if (std::cmp_not_equal(metadata.unusedBits, unused)) {
    FailRecord(file, offset,
               "leaves " + std::to_string(metadata.unusedBits) + " bits unused, expected " + std::to_string(unused) +
                   " for " + std::string(NameOf(type)) + " " + ToString(shape));
  }
}

}  // namespace

WeightFile::WeightFile(const std::filesystem::path& file)
    // Of any size: what is not read is not loaded.
    : name_(Quoted(file.string())), mapping_(file, std::numeric_limits<std::int64_t>::max(), Stage::Load) {
  const auto header = Slice(mapping_.bytes(), 0, kHeaderBytes);
  if (!header) {
    throw Error(Stage::Load, "weight file " + name_ + " has " + std::to_string(mapping_.bytes().size()) +
                                 " bytes, expected at least " + std::to_string(kHeaderBytes));
  }
  ByteReader reader(header->subspan(4));
  const std::uint32_t version = *reader.U32();
  if (version != kVersion) {
    throw Error(Stage::Load, "weight file " + name_ + " is of version " + std::to_string(version) + ", expected " +
                                 std::to_string(kVersion));
  }
}

std::span<const std::byte> WeightFile::Record(std::uint64_t offset, ElementType type, const Shape& shape) const {
  const std::span<const std::byte> file = mapping_.bytes();
  const std::string bytesOfFile = "the file has " + std::to_string(file.size()) + " bytes";
  if (offset < kHeaderBytes) FailRecord(name_, offset, "lies within the header of the file");
  const std::optional<Metadata> metadata = ReadMetadata(file, offset);
  if (!metadata) FailRecord(name_, offset, "lies outside the file; " + bytesOfFile);
  CheckType(name_, offset, *metadata, type);
  CheckSize(name_, offset, *metadata, type, shape);
  const auto data = Slice(file, metadata->offset, metadata->size);
  if (!data) {
    FailRecord(name_, offset,
               "its " + std::to_string(metadata->size) + " bytes at " + std::to_string(metadata->offset) +
                   " reach outside the file; " + bytesOfFile);
  }
  return *data;
}

}  // namespace ulmora::engine::package
