#pragma once
// Scales and zero points of quantize and dequantize, for their evaluation and their lowering.

#include "engine/program/OpCall.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace ulmora::engine::program {

/// One scale and zero point for everything, or one for each index along an axis.
struct QuantizeScales {
  std::optional<std::size_t> axis;
  std::vector<float> scale;
  std::vector<float> zeroPoint;  ///< as many; 0 where the package has none
};

/// Fails if scale and zero_point do not fit the input.
[[nodiscard]] QuantizeScales ScalesOf(const OpCall& call);

/// clip(round(x / scale) + zeroPoint) to the range of `type`, halves rounded to even; NaN becomes 0.
[[nodiscard]] std::int32_t Quantized(float x, float scale, float zeroPoint, ElementType type) noexcept;

}  // namespace ulmora::engine::program
