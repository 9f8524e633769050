#include "engine/package/ElementDecoding.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

namespace ulmora::engine::package {
namespace {

template <typename T>
T Load(const std::byte* source) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) value |= static_cast<T>(static_cast<T>(source[i]) << (8 * i));
  return value;
}

/// IEEE binary16. Subnormal halves are normal floats, so they are built by arithmetic that no flush mode can touch.
float FromHalf(std::uint16_t bits) {
  const std::uint32_t sign = static_cast<std::uint32_t>(bits & 0x8000U) << 16;
  const std::uint32_t exponent = (bits >> 10) & 0x1FU;
  const std::uint32_t mantissa = bits & 0x3FFU;
  if (exponent == 0) {
    const float magnitude = static_cast<float>(mantissa) * 0x1p-24F;
    return sign != 0 ? -magnitude : magnitude;
  }
  const std::uint32_t widened = exponent == 0x1F ? 0xFFU : exponent + 112;
  return std::bit_cast<float>(sign | (widened << 23) | (mantissa << 13));
}

/// An 8-bit float of `mantissaBits` bits below an exponent with this bias.
float FromFloat8(std::uint8_t bits, int mantissaBits, int bias) {
  const int mantissa = bits & ((1 << mantissaBits) - 1);
  const int exponent = (bits & 0x7F) >> mantissaBits;
  const float fraction = std::ldexp(static_cast<float>(mantissa), -mantissaBits);
  const float magnitude = exponent == 0 ? std::ldexp(fraction, 1 - bias) : std::ldexp(1.0F + fraction, exponent - bias);
  return (bits & 0x80) != 0 ? -magnitude : magnitude;
}

/// 4 exponent bits, 3 mantissa bits, no infinities; all bits set is the only not-a-number.
float FromFloat8E4M3(std::uint8_t bits) {
  if ((bits & 0x7F) == 0x7F) return std::numeric_limits<float>::quiet_NaN();
  return FromFloat8(bits, 3, 7);
}

/// 5 exponent bits, 2 mantissa bits: the upper half of a binary16.
float FromFloat8E5M2(std::uint8_t bits) {
  return FromHalf(static_cast<std::uint16_t>(bits << 8));
}

template <typename Raw, typename Result, typename Convert>
std::vector<Result> DecodeWhole(std::span<const std::byte> bytes, const Convert& convert) {
  std::vector<Result> values(bytes.size() / sizeof(Raw));
  const std::byte* source = bytes.data();
  for (Result& value : values) {
    value = convert(Load<Raw>(source));
    source += sizeof(Raw);
  }
  return values;
}

std::vector<float> DecodeFloats(std::span<const std::byte> bytes, ElementType type) {
  switch (type) {
    case ElementType::Float16:
      return DecodeWhole<std::uint16_t, float>(bytes, FromHalf);
    case ElementType::BFloat16:
      return DecodeWhole<std::uint16_t, float>(
          bytes, [](std::uint16_t raw) { return std::bit_cast<float>(static_cast<std::uint32_t>(raw) << 16); });
    case ElementType::Float32:
      return DecodeWhole<std::uint32_t, float>(bytes, [](std::uint32_t raw) { return std::bit_cast<float>(raw); });
    case ElementType::Float64:
      return DecodeWhole<std::uint64_t, float>(bytes,
                                               [](std::uint64_t raw) { return Narrowed(std::bit_cast<double>(raw)); });
    case ElementType::Float8E4M3FN:
      return DecodeWhole<std::uint8_t, float>(bytes, FromFloat8E4M3);
    case ElementType::Float8E5M2:
      return DecodeWhole<std::uint8_t, float>(bytes, FromFloat8E5M2);
    default:
      throw std::logic_error("no packed floats of this type");
  }
}

template <typename Raw, typename Signed>
std::vector<std::int32_t> DecodeSigned(std::span<const std::byte> bytes) {
  return DecodeWhole<Raw, std::int32_t>(bytes, [](Raw raw) { return Saturated(static_cast<Signed>(raw)); });
}

template <typename Raw>
std::vector<std::int32_t> DecodeUnsigned(std::span<const std::byte> bytes) {
  return DecodeWhole<Raw, std::int32_t>(bytes, [](Raw raw) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::min(static_cast<std::uint64_t>(raw), kLargest));
  });
}

/// Elements of less than a byte; one of 3 or 6 bits may straddle two bytes, its low bits in the first.
std::vector<std::int32_t> DecodeBits(std::span<const std::byte> bytes, int bits, bool isSigned, std::int64_t count) {
  std::vector<std::int32_t> values(static_cast<std::size_t>(count));
  const std::uint32_t mask = (1U << bits) - 1;
  const std::int32_t wrap = isSigned ? 1 << (bits - 1) : std::numeric_limits<std::int32_t>::max();
  std::size_t position = 0;
  for (std::int32_t& value : values) {
    const std::size_t byte = position / 8;
    std::uint32_t window = std::to_integer<std::uint32_t>(bytes[byte]);
    if (byte + 1 < bytes.size()) window |= std::to_integer<std::uint32_t>(bytes[byte + 1]) << 8;
    value = static_cast<std::int32_t>((window >> (position % 8)) & mask);
    if (value >= wrap) value -= 1 << bits;
    position += static_cast<std::size_t>(bits);
  }
  return values;
}

std::vector<std::int32_t> DecodeInts(std::span<const std::byte> bytes, ElementType type, std::int64_t count) {
  switch (type) {
    case ElementType::Int8:
      return DecodeSigned<std::uint8_t, std::int8_t>(bytes);
    case ElementType::Int16:
      return DecodeSigned<std::uint16_t, std::int16_t>(bytes);
    case ElementType::Int32:
      return DecodeSigned<std::uint32_t, std::int32_t>(bytes);
    case ElementType::Int64:
      return DecodeSigned<std::uint64_t, std::int64_t>(bytes);
    case ElementType::UInt8:
      return DecodeUnsigned<std::uint8_t>(bytes);
    case ElementType::UInt16:
      return DecodeUnsigned<std::uint16_t>(bytes);
    case ElementType::UInt32:
      return DecodeUnsigned<std::uint32_t>(bytes);
    case ElementType::UInt64:
      return DecodeUnsigned<std::uint64_t>(bytes);
    default:
      return DecodeBits(bytes, PackedBits(type), type == ElementType::Int4, count);
  }
}

}  // namespace

int PackedBits(ElementType type) noexcept {
  switch (type) {
    case ElementType::Bool:
    case ElementType::String:
      return 0;
    case ElementType::UInt1:
      return 1;
    case ElementType::UInt2:
      return 2;
    case ElementType::UInt3:
      return 3;
    case ElementType::Int4:
    case ElementType::UInt4:
      return 4;
    case ElementType::UInt6:
      return 6;
    case ElementType::Int8:
    case ElementType::UInt8:
    case ElementType::Float8E4M3FN:
    case ElementType::Float8E5M2:
      return 8;
    case ElementType::Float16:
    case ElementType::BFloat16:
    case ElementType::Int16:
    case ElementType::UInt16:
      return 16;
    case ElementType::Float32:
    case ElementType::Int32:
    case ElementType::UInt32:
      return 32;
    case ElementType::Float64:
    case ElementType::Int64:
    case ElementType::UInt64:
      return 64;
  }
  return 0;
}

std::int64_t PackedBytes(ElementType type, std::int64_t count) noexcept {
  // Counts are at most 2^31 and bits at most 64: far from overflow.
  return (count * PackedBits(type) + 7) / 8;
}

Tensor DecodeElements(std::span<const std::byte> bytes, ElementType type, Shape shape) {
  const std::int64_t count = ElementCount(shape);
  if (PackedBits(type) == 0) throw std::logic_error("elements of this type have no packed form");
  if (std::cmp_not_equal(bytes.size(), PackedBytes(type, count)))
    throw std::logic_error("wrong size of packed elements");
  if (StorageOf(type) == Storage::Float) return Tensor::Floats(std::move(shape), DecodeFloats(bytes, type), type);
  return Tensor::Ints(std::move(shape), DecodeInts(bytes, type, count), type);
}

std::int32_t Saturated(std::int64_t value) noexcept {
  constexpr std::int64_t kLowest = std::numeric_limits<std::int32_t>::min();
  constexpr std::int64_t kHighest = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::clamp(value, kLowest, kHighest));
}

float Narrowed(double value) noexcept {
  constexpr double kLargest = std::numeric_limits<float>::max();
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  // The conversion itself is undefined beyond the range.
  if (value > kLargest) return kInfinity;
  if (value < -kLargest) return -kInfinity;
  return static_cast<float>(value);
}

}  // namespace ulmora::engine::package
