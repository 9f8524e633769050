#include "engine/cpu/MemoryPlan.h"

#include <algorithm>
#include <numeric>

namespace ulmora::engine::cpu {
namespace {

std::int64_t RoundUp(std::int64_t bytes) {
  return (bytes + kArenaAlignment - 1) / kArenaAlignment * kArenaAlignment;
}

bool AliveTogether(const Block& a, const Block& b) {
  return a.first <= b.last && b.first <= a.last;
}

struct Range {
  std::int64_t begin = 0;
  std::int64_t end = 0;
};

/// Lowest offset at which `bytes` fit between ranges that are sorted by their beginnings and may overlap.
std::int64_t LowestGap(const std::vector<Range>& taken, std::int64_t bytes) {
  std::int64_t offset = 0;
  for (const Range& range : taken) {
    if (range.begin - offset >= bytes) break;
    offset = std::max(offset, range.end);
  }
  return offset;
}

}  // namespace

MemoryPlan PlanMemory(const std::vector<Block>& blocks) {
  std::vector<std::size_t> order(blocks.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return blocks[a].bytes > blocks[b].bytes; });

  MemoryPlan plan;
  plan.offsets.assign(blocks.size(), 0);
  std::vector<std::size_t> placed;  // sorted by offset
  std::vector<Range> taken;
  for (const std::size_t index : order) {
    const std::int64_t bytes = RoundUp(blocks[index].bytes);
    taken.clear();
    for (const std::size_t other : placed) {
      if (!AliveTogether(blocks[index], blocks[other])) continue;
      taken.push_back({plan.offsets[other], plan.offsets[other] + RoundUp(blocks[other].bytes)});
    }
    const std::int64_t offset = LowestGap(taken, bytes);
    plan.offsets[index] = offset;
    plan.bytes = std::max(plan.bytes, offset + bytes);
    const auto position =
        std::upper_bound(placed.begin(), placed.end(), offset,
                         [&](std::int64_t at, std::size_t other) { return at < plan.offsets[other]; });
    placed.insert(position, index);
  }
  return plan;
}

}  // namespace ulmora::engine::cpu
