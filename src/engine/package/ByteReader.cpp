#include "engine/package/ByteReader.h"

namespace ulmora::engine::package {

template <typename T>
std::optional<T> ByteReader::Unsigned() {
  if (rest_.size() < sizeof(T)) return std::nullopt;
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value |= static_cast<T>(std::to_integer<T>(rest_[i]) << (8 * i));
  }
  rest_ = rest_.subspan(sizeof(T));
  return value;
}

std::optional<std::uint32_t> ByteReader::U32() {
  return Unsigned<std::uint32_t>();
}

std::optional<std::uint64_t> ByteReader::U64() {
  return Unsigned<std::uint64_t>();
}

bool ByteReader::Skip(std::uint64_t count) {
  if (count > rest_.size()) return false;
  rest_ = rest_.subspan(static_cast<std::size_t>(count));
  return true;
}

std::optional<std::span<const std::byte>> Slice(std::span<const std::byte> bytes, std::uint64_t offset,
                                                std::uint64_t size) {
  // Two comparisons instead of a sum: the sum of two numbers from a file may wrap around.
  if (offset > bytes.size() || size > bytes.size() - offset) return std::nullopt;
  return bytes.subspan(static_cast<std::size_t>(offset), static_cast<std::size_t>(size));
}

}  // namespace ulmora::engine::package
