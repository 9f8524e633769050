#pragma once
// The strided selections behind slice_by_index, slice_by_size, slice_update, reverse and crop, for their shape rules,
// their evaluation and their lowering.

#include "engine/program/OpCall.h"

#include <cstdint>
#include <vector>

namespace ulmora::engine::program {

/// Of one dimension of x, the elements begin, begin + stride, ..., `count` of them. All lie within the dimension.
struct SliceAxis {
  std::int64_t begin = 0;
  std::int64_t stride = 1;
  std::int64_t count = 0;
  bool squeezed = false;  ///< the dimension (of count 1) is dropped from the result

  friend bool operator==(const SliceAxis&, const SliceAxis&) = default;
};

/// One per dimension of x. Fails on impossible operands.
[[nodiscard]] std::vector<SliceAxis> SliceAxes(const OpCall& call);

/// Offset, in a tensor of those strides, of the element that stands at `index` in the selection.
[[nodiscard]] std::int64_t SliceOffset(const std::vector<SliceAxis>& axes, const std::vector<std::int64_t>& strides,
                                       const Shape& index) noexcept;

}  // namespace ulmora::engine::program
