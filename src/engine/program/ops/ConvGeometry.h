#pragma once
// What a call of conv or conv_transpose comes down to in numbers, for its shape rule, its evaluation and its lowering.

#include "engine/program/OpCall.h"
#include "engine/program/ShapeMath.h"

#include <cstdint>
#include <vector>

namespace ulmora::engine::program {

/// Batch, channels and spatial axes; of each axis input and output are sizes of x and of the result.
struct ConvGeometry {
  std::int64_t batch = 1;
  std::int64_t inputChannels = 1;   ///< of x, over all groups
  std::int64_t outputChannels = 1;  ///< of the result, over all groups
  std::int64_t groups = 1;
  std::vector<WindowAxis> axes;  ///< one to three

  /// Shape of the result: [batch, outputChannels, axes' outputs].
  [[nodiscard]] Shape OutputShape() const;
};

/// conv: x [N, Cin, *D], weight [Cout, Cin / groups, *K]. Cross-correlation: result[o] += x[o * stride + k * dilation -
/// padBefore] * weight[k]. Fails on impossible operands.
///   valid   output = floor((D - span) / stride) + 1
///   same    output = ceil(D / stride), the odd element of padding at the end (same_lower: at the start)
///   custom  output = floor((D + before + after - span) / stride) + 1
[[nodiscard]] ConvGeometry ResolveConv(const OpCall& call);

/// conv_transpose: x [N, Cin, *D], weight [Cin, Cout / groups, *K]. The gradient of a convolution: result[i * stride +
/// k * dilation - padBefore] += x[i] * weight[k]. Fails on impossible operands.
///   valid   output = (D - 1) * stride + span
///   custom  the same minus before and after
///   same    output = D * stride, span - stride elements cut off, the odd one at the end (same_lower: at the start)
/// output_shape overrides the output; what then exceeds the formula lies at the end. padAfter always makes up the
/// difference, output = (D - 1) * stride + span - padBefore - padAfter, and is negative where the result is longer.
[[nodiscard]] ConvGeometry ResolveConvTranspose(const OpCall& call);

}  // namespace ulmora::engine::program
