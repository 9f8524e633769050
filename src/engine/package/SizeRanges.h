#pragma once
// The sizes that a description allows, as its several forms write them.

#include "engine/Feature.h"

#include <cstdint>
#include <vector>

namespace ulmora::engine::package {

/// Sizes from `least` to `most`; a negative one means that there is no upper bound. Throws Error(Open) if no size lies
/// between them, or none that a tensor can have.
[[nodiscard]] SizeRange CheckedRange(std::uint64_t least, std::int64_t most);

/// Ranges that allow this shape alone.
[[nodiscard]] std::vector<SizeRange> FixedRanges(const Shape& shape);

/// Throws Error(Open) unless there is a range for each dimension of the shape, or, of a shape that is not declared, for
/// as many as a tensor can have.
void CheckRangeCount(std::size_t count, const Shape& shape);

}  // namespace ulmora::engine::package
