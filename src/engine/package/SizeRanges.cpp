#include "engine/package/SizeRanges.h"

#include "engine/Error.h"
#include "engine/Limits.h"

#include <string>
#include <utility>

namespace ulmora::engine::package {

SizeRange CheckedRange(std::uint64_t least, std::int64_t most) {
  SizeRange range;
  if (most >= 0) range.most = most;
  if (std::cmp_greater(least, range.most) || std::cmp_greater(least, limits::kMaxTensorElements)) {
    throw Error(Stage::Open, "has a dimension of size " + std::to_string(least) + " to " + std::to_string(most));
  }
  range.least = static_cast<std::int64_t>(least);
  return range;
}

std::vector<SizeRange> FixedRanges(const Shape& shape) {
  std::vector<SizeRange> ranges;
  for (const std::int64_t size : shape) ranges.push_back({size, size});
  return ranges;
}

void CheckRangeCount(std::size_t count, const Shape& shape) {
  if (shape.empty() ? std::cmp_less_equal(count, limits::kMaxRank) : count == shape.size()) return;
  throw Error(Stage::Open, "has ranges for " + std::to_string(count) + " dimensions, but shape " + ToString(shape));
}

}  // namespace ulmora::engine::package
