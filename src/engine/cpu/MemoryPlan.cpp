#include "engine/cpu/MemoryPlan.h"

#include "engine/cpu/LifetimeIndex.h"
#include "engine/cpu/RoundUp.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <numeric>
#include <optional>
#include <set>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

/// Neighbours in time that a block may have on average before the exact way is given up: far more than networks keep
/// alive at once, and little enough for a hundred thousand blocks to be placed in seconds.
constexpr std::int64_t kLooksPerBlock = 64;

std::int64_t AlignedSize(const Block& block) {
  return RoundUp(block.bytes, kArenaAlignment);
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

std::vector<std::size_t> Order(std::size_t count) {
  std::vector<std::size_t> order(count);
  std::iota(order.begin(), order.end(), std::size_t{0});
  return order;
}

/// Large blocks first; nothing if that would look at more neighbours than it may.
std::optional<MemoryPlan> PlanBySize(const std::vector<Block>& blocks) {
  std::vector<std::size_t> order = Order(blocks.size());
  std::ranges::stable_sort(order, std::ranges::greater(), [&](std::size_t index) { return blocks[index].bytes; });
  MemoryPlan plan;
  plan.offsets.assign(blocks.size(), 0);
  const std::int64_t most = kLooksPerBlock * std::ssize(blocks);
  LifetimeIndex placed(blocks);
  std::vector<Range> taken;
  for (const std::size_t index : order) {
    const std::int64_t bytes = AlignedSize(blocks[index]);
    taken.clear();
    placed.ForEachAliveWith(blocks[index], [&](std::size_t other) {
      taken.push_back({plan.offsets[other], plan.offsets[other] + AlignedSize(blocks[other])});
    });
    plan.looked += std::ssize(taken);
    if (plan.looked > most) return std::nullopt;
    std::ranges::sort(taken, {}, &Range::begin);
    plan.offsets[index] = LowestGap(taken, bytes);
    plan.bytes = std::max(plan.bytes, plan.offsets[index] + bytes);
    placed.Insert(index);
  }
  return plan;
}

/// The gaps of an arena that grows at its end. No two of them touch.
class Gaps {
 public:
  /// Takes `bytes` from the smallest gap that holds them (the lowest of several), or from the end of the arena.
  std::int64_t Take(std::int64_t bytes) {
    const auto fit = bySize_.lower_bound({bytes, 0});
    if (fit == bySize_.end()) return Grow(bytes);
    const auto [size, offset] = *fit;
    Remove(byOffset_.find(offset));
    Add(offset + bytes, size - bytes);
    return offset;
  }

  /// Gives them back, joined with the gaps beside them.
  void Give(std::int64_t offset, std::int64_t bytes) {
    auto next = byOffset_.lower_bound(offset);
    if (next != byOffset_.end() && next->first == offset + bytes) {
      bytes += next->second;
      next = Remove(next);
    }
    if (next != byOffset_.begin()) {
      const auto before = std::prev(next);
      if (before->first + before->second == offset) {
        offset = before->first;
        bytes += before->second;
        Remove(before);
      }
    }
    Add(offset, bytes);
  }

  [[nodiscard]] std::int64_t end() const noexcept { return end_; }

 private:
  using ByOffset = std::map<std::int64_t, std::int64_t>;

  /// A gap at the very end counts towards what is asked for.
  std::int64_t Grow(std::int64_t bytes) {
    std::int64_t offset = end_;
    if (!byOffset_.empty()) {
      const auto last = std::prev(byOffset_.end());
      if (last->first + last->second == end_) {
        offset = last->first;
        Remove(last);
      }
    }
    end_ = offset + bytes;
    return offset;
  }

  void Add(std::int64_t offset, std::int64_t bytes) {
    if (bytes == 0) return;
    byOffset_.emplace(offset, bytes);
    bySize_.emplace(bytes, offset);
  }

  ByOffset::iterator Remove(ByOffset::iterator gap) {
    bySize_.erase({gap->second, gap->first});
    return byOffset_.erase(gap);
  }

  ByOffset byOffset_;
  std::set<std::pair<std::int64_t, std::int64_t>> bySize_;
  std::int64_t end_ = 0;
};

}  // namespace

MemoryPlan PlanMemoryInOrder(const std::vector<Block>& blocks) {
  std::vector<std::size_t> order = Order(blocks.size());
  // Of those that begin together the large ones first.
  std::ranges::stable_sort(order, {}, [&](std::size_t i) { return std::pair(blocks[i].first, -blocks[i].bytes); });
  MemoryPlan plan;
  plan.offsets.assign(blocks.size(), 0);
  Gaps gaps;
  std::set<std::pair<std::int64_t, std::size_t>> alive;  // by last step
  for (const std::size_t index : order) {
    while (!alive.empty() && alive.begin()->first < blocks[index].first) {
      const std::size_t done = alive.begin()->second;
      gaps.Give(plan.offsets[done], AlignedSize(blocks[done]));
      alive.erase(alive.begin());
      ++plan.looked;
    }
    plan.offsets[index] = gaps.Take(AlignedSize(blocks[index]));
    alive.emplace(blocks[index].last, index);
  }
  plan.bytes = gaps.end();
  return plan;
}

MemoryPlan PlanMemory(const std::vector<Block>& blocks) {
  if (std::optional<MemoryPlan> plan = PlanBySize(blocks)) return std::move(*plan);
  return PlanMemoryInOrder(blocks);
}

}  // namespace ulmora::engine::cpu
