#include "engine/package/text/Rounding.h"

#include "engine/package/ElementDecoding.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ulmora::engine::package::text {
namespace {

struct Format {
  int precision = 0;         ///< bits of a mantissa, with the leading one
  int smallestExponent = 0;  ///< of normal numbers: 2^smallestExponent
  double largest = 0;
};

/// The format of a type that is narrower than float32; precision 0 for the others.
Format FormatOf(ElementType type) {
  switch (type) {
    case ElementType::Float16:
      return {11, -14, 65504};
    case ElementType::BFloat16:
      return {8, -126, 0x1.FEp127};
    case ElementType::Float8E4M3FN:
      return {4, -6, 448};
    case ElementType::Float8E5M2:
      return {3, -14, 57344};
    default:
      return {};
  }
}

}  // namespace

float RoundedTo(ElementType type, double value) noexcept {
  const Format format = FormatOf(type);
  if (format.precision == 0 || value == 0 || std::isnan(value)) return Narrowed(value);
  double rounded = value;
  if (std::isfinite(value)) {
    // One unit in the last place of numbers of this size.
    const int unit = std::max(std::ilogb(value), format.smallestExponent) - (format.precision - 1);
    rounded = std::ldexp(std::nearbyint(std::ldexp(value, -unit)), unit);
  }
  if (std::abs(rounded) <= format.largest) return static_cast<float>(rounded);
  if (type == ElementType::Float8E4M3FN) return std::numeric_limits<float>::quiet_NaN();
  return std::copysign(std::numeric_limits<float>::infinity(), static_cast<float>(std::copysign(1.0, value)));
}

}  // namespace ulmora::engine::package::text
