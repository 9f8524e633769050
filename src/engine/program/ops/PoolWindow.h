#pragma once
// The windows of a pool along its spatial axes, for its shape rule, its evaluation and its lowering.

#include "engine/program/OpCall.h"
#include "engine/program/ShapeMath.h"

#include <cstdint>
#include <vector>

namespace ulmora::engine::program {

/// The spatial axes of a call of max_pool, avg_pool or l2_pool, outputs filled in. Every window holds at least one
/// element of x. Fails on impossible operands.
///   valid   output = floor((D - k) / s) + 1
///   same    output = ceil(D / s), the odd element of padding at the end (same_lower: at the start)
///   custom  output = floor((D + before + after - k) / s) + 1
///   ceil_mode rounds the division up, and drops a last window that would start in the padding after the data.
[[nodiscard]] std::vector<WindowAxis> PoolAxes(const OpCall& call);

/// One window along one axis, clipped to the data: elements [begin, end).
struct WindowRange {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::int64_t padded = 0;  ///< length with the declared padding counted, but not what ceil_mode adds beyond it
};

/// Window number `output` of the axis.
[[nodiscard]] WindowRange WindowAt(const WindowAxis& axis, std::int64_t output) noexcept;

}  // namespace ulmora::engine::program
