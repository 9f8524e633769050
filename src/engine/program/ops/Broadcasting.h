#pragma once
// Elementwise operations on several tensors that broadcast against each other.

#include "engine/program/OpCall.h"
#include "engine/program/ShapeMath.h"

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ulmora::engine::program {

/// Common shape of the named operands; Fails if they do not match.
[[nodiscard]] Shape BroadcastOf(const OpCall& call, std::span<const std::string_view> parameters);

/// The element type of a result computed from operands x and y of one kind: theirs if it is the same, otherwise float32
/// or int32. Fails if one holds floats and the other integers, or if only one holds bools.
[[nodiscard]] ElementType CommonElement(const OpCall& call, std::string_view x, std::string_view y);

/// Calls visit(offsets) for every element of `result` in row-major order, with the offset in each of the operands.
template <std::size_t kCount, typename Visit>
void VisitBroadcast(const Shape& result, const std::array<Shape, kCount>& operands, const Visit& visit) {
  if (ElementCount(result) == 0) return;
  std::array<std::vector<std::int64_t>, kCount> strides;
  for (std::size_t i = 0; i < kCount; ++i) strides[i] = BroadcastStrides(operands[i], result);
  Shape index(result.size(), 0);
  std::array<std::size_t, kCount> offsets{};
  do {
    for (std::size_t i = 0; i < kCount; ++i) offsets[i] = static_cast<std::size_t>(Offset(index, strides[i]));
    visit(offsets);
  } while (NextIndex(index, result));
}

}  // namespace ulmora::engine::program
