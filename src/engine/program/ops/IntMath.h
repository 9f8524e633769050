#pragma once
// Integer arithmetic on untrusted constants: 64 bits wide inside, clamped on the way back, never undefined.

#include "engine/Tensor.h"

#include <cstdint>

namespace ulmora::engine::program {

/// `value` clamped to what the element type holds, and to int32, in which all integers are kept.
[[nodiscard]] std::int32_t ClampInt(std::int64_t value, ElementType type) noexcept;

/// `value` reduced to the low bits of the element type, as a conversion between integer types does; types of 32 bits
/// and more keep it.
[[nodiscard]] std::int32_t WrapInt(std::int32_t value, ElementType type) noexcept;

/// `value` truncated towards zero and clamped as by ClampInt; NaN becomes 0.
[[nodiscard]] std::int32_t FloatToInt(float value, ElementType type) noexcept;

/// Quotient rounded towards minus infinity. Division by zero gives 0: there is no right answer, but there must be one.
[[nodiscard]] std::int64_t FloorDiv(std::int64_t a, std::int64_t b) noexcept;

/// a - FloorDiv(a, b) * b, with the sign of b; 0 for b = 0.
[[nodiscard]] std::int64_t FloorMod(std::int64_t a, std::int64_t b) noexcept;

/// base to the power of exponent, clamped to int32. Negative exponents truncate towards zero; 0 to a negative power
/// gives 0.
[[nodiscard]] std::int64_t PowInt(std::int32_t base, std::int32_t exponent) noexcept;

}  // namespace ulmora::engine::program
