#pragma once
// Evaluation of the operations that only move elements: every element of the result is one of the input, or a filler.

#include "engine/Tensor.h"

#include <cstdint>
#include <functional>

namespace ulmora::engine::program {

/// What a source function returns for an element that is not taken from the input.
inline constexpr std::int64_t kFill = -1;

/// Row-major offset in the input of the element that stands at `index` in the result, or kFill.
using Source = std::function<std::int64_t(const Shape& index)>;

/// A tensor of shape `shape` and of x's element type whose elements are x's at `source`, or `fill` (converted to the
/// element type; NaN counts as 0 among integers and as true among bools). x must not hold strings.
[[nodiscard]] Tensor Take(const Tensor& x, const Shape& shape, const Source& source, float fill = 0.0F);

}  // namespace ulmora::engine::program
