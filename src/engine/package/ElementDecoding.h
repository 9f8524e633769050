#pragma once
// Packed elements of any declared type to the float32, int32 or bool elements that the engine computes with.

#include "engine/Tensor.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace ulmora::engine::package {

/// Bits that one packed element takes: 1 to 64. Zero for bool and string, which have no packed form.
[[nodiscard]] int PackedBits(ElementType type) noexcept;

/// Bytes that `count` packed elements take: the bits rounded up to whole bytes.
[[nodiscard]] std::int64_t PackedBytes(ElementType type, std::int64_t count) noexcept;

/// The tensor whose packed little-endian elements are `bytes`. Types below one byte form one stream of bits, least
/// significant bit first. Requires bytes.size() == PackedBytes(type, ElementCount(shape)) and a type that has a packed
/// form (std::logic_error otherwise). Values beyond float32 become infinite, integers beyond int32 saturate.
[[nodiscard]] Tensor DecodeElements(std::span<const std::byte> bytes, ElementType type, Shape shape);

/// The nearest int32.
[[nodiscard]] std::int32_t Saturated(std::int64_t value) noexcept;

/// The nearest float32, infinite beyond its range.
[[nodiscard]] float Narrowed(double value) noexcept;

}  // namespace ulmora::engine::package
