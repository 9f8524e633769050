#pragma once
// Which of many blocks are alive in any of some steps, without looking at the others.

#include "engine/cpu/MemoryPlan.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <numeric>
#include <vector>

namespace ulmora::engine::cpu {

/// A set of blocks, empty at first. The blocks stand sorted by their first step in the leaves of a tree whose nodes
/// know the greatest last step below them: those that live together with a block are found by n log n for n of them.
class LifetimeIndex {
 public:
  /// For sets of these blocks, which must outlive the index.
  explicit LifetimeIndex(const std::vector<Block>& blocks)
      : blocks_(blocks),
        sorted_(blocks.size()),
        rank_(blocks.size()),
        leaves_(std::bit_ceil(std::max<std::size_t>(blocks.size(), 1))),
        last_(2 * leaves_, kNobody) {
    std::iota(sorted_.begin(), sorted_.end(), std::size_t{0});
    std::ranges::stable_sort(sorted_, {}, [&](std::size_t index) { return blocks[index].first; });
    for (std::size_t rank = 0; rank < sorted_.size(); ++rank) rank_[sorted_[rank]] = rank;
  }

  /// Adds the block of that index.
  void Insert(std::size_t index) {
    std::size_t node = leaves_ + rank_[index];
    last_[node] = blocks_[index].last;
    for (node /= 2; node > 0; node /= 2) last_[node] = std::max(last_[2 * node], last_[2 * node + 1]);
  }

  /// Calls `visit` with the index of every block of the set that shares a step with `block`, in the order of first
  /// steps.
  template <typename Visit>
  void ForEachAliveWith(const Block& block, const Visit& visit) const {
    const auto end =
        std::ranges::upper_bound(sorted_, block.last, {}, [&](std::size_t index) { return blocks_[index].first; });
    Descend(1, 0, leaves_, static_cast<std::size_t>(end - sorted_.begin()), block.first, visit);
  }

 private:
  static constexpr std::int64_t kNobody = std::numeric_limits<std::int64_t>::min();

  /// Visits the leaves of `node`, which are `begin` up to `begin + width`, that lie before `end` and last to `step`.
  template <typename Visit>
  void Descend(std::size_t node, std::size_t begin, std::size_t width, std::size_t end, std::int64_t step,
               const Visit& visit) const {
    if (begin >= end || last_[node] == kNobody || last_[node] < step) return;
    if (width == 1) {
      visit(sorted_[begin]);
      return;
    }
    Descend(2 * node, begin, width / 2, end, step, visit);
    Descend(2 * node + 1, begin + width / 2, width / 2, end, step, visit);
  }

  const std::vector<Block>& blocks_;
  std::vector<std::size_t> sorted_;  ///< indices by first step
  std::vector<std::size_t> rank_;    ///< of each block in sorted_
  std::size_t leaves_;
  std::vector<std::int64_t> last_;  ///< root at 1, children of n at 2n and 2n + 1
};

}  // namespace ulmora::engine::cpu
