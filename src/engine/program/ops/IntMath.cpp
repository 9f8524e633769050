#include "engine/program/ops/IntMath.h"

#include <algorithm>
#include <cmath>

namespace ulmora::engine::program {
namespace {

struct IntFormat {
  int bits;
  bool isSigned;
};

/// Width as declared; everything that is not a narrow integer counts as int32.
IntFormat FormatOf(ElementType type) noexcept {
  switch (type) {
    case ElementType::Int4:
      return {4, true};
    case ElementType::Int8:
      return {8, true};
    case ElementType::Int16:
      return {16, true};
    case ElementType::UInt1:
      return {1, false};
    case ElementType::UInt2:
      return {2, false};
    case ElementType::UInt3:
      return {3, false};
    case ElementType::UInt4:
      return {4, false};
    case ElementType::UInt6:
      return {6, false};
    case ElementType::UInt8:
      return {8, false};
    case ElementType::UInt16:
      return {16, false};
    case ElementType::UInt32:
    case ElementType::UInt64:
      return {31, false};
    default:
      return {32, true};
  }
}

}  // namespace

std::int32_t ClampInt(std::int64_t value, ElementType type) noexcept {
  const IntFormat format = FormatOf(type);
  const std::int64_t span = std::int64_t{1} << (format.isSigned ? format.bits - 1 : format.bits);
  return static_cast<std::int32_t>(std::clamp(value, format.isSigned ? -span : 0, span - 1));
}

std::int32_t WrapInt(std::int32_t value, ElementType type) noexcept {
  const IntFormat format = FormatOf(type);
  if (format.bits >= 31) return value;
  const std::int64_t range = std::int64_t{1} << format.bits;
  const std::int64_t low = FloorMod(value, range);
  return static_cast<std::int32_t>(format.isSigned && low >= range / 2 ? low - range : low);
}

std::int32_t FloatToInt(float value, ElementType type) noexcept {
  if (std::isnan(value)) return 0;
  // Both bounds are exact in float and lie beyond int32, so that the conversion is defined and the clamp decides.
  constexpr float kBound = 4294967296.0F;
  return ClampInt(static_cast<std::int64_t>(std::clamp(value, -kBound, kBound)), type);
}

std::int64_t FloorDiv(std::int64_t a, std::int64_t b) noexcept {
  if (b == 0) return 0;
  if (b == -1) return a == INT64_MIN ? INT64_MAX : -a;
  const std::int64_t quotient = a / b;
  return a % b != 0 && (a < 0) != (b < 0) ? quotient - 1 : quotient;
}

std::int64_t FloorMod(std::int64_t a, std::int64_t b) noexcept {
  if (b == 0 || b == -1) return 0;
  const std::int64_t rest = a % b;
  return rest != 0 && (rest < 0) != (b < 0) ? rest + b : rest;
}

std::int64_t PowInt(std::int32_t base, std::int32_t exponent) noexcept {
  if (exponent < 0) {
    if (base == 1) return 1;
    if (base == -1) return exponent % 2 == 0 ? 1 : -1;
    return 0;
  }
  // Powers of |base| >= 2 leave int32 within 32 steps; those of 0, 1 and -1 depend on the exponent's parity alone.
  const int steps = exponent <= 32 ? exponent : 32 + exponent % 2;
  std::int64_t power = 1;
  for (int i = 0; i < steps; ++i) {
    power *= base;  // both within 32 bits
    if (power > INT32_MAX || power < INT32_MIN) return base < 0 && exponent % 2 != 0 ? INT32_MIN : INT32_MAX;
  }
  return power;
}

}  // namespace ulmora::engine::program
