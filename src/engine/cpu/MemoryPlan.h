#pragma once
// Where in one arena each of many short-lived blocks goes. Knows sizes and lifetimes, no tensors.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ulmora::engine::cpu {

/// Every block begins at a multiple of this: a cache line, and the widest vector.
inline constexpr std::int64_t kArenaAlignment = 64;

/// A block of memory that steps number `first` to `last` (both included) use.
struct Block {
  std::int64_t bytes = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
};

struct MemoryPlan {
  std::vector<std::int64_t> offsets;  ///< of each block, in the order given
  std::int64_t bytes = 0;             ///< of the arena
  std::int64_t looked = 0;            ///< placed blocks that were looked at on the way: the work, for tests
};

/// Places the blocks so that no two that are alive in the same step overlap. Large blocks first, each at the lowest
/// offset at which it fits: within a few percent of the optimum on the programs that networks make, and deterministic.
/// That looks at every pair of blocks that live at the same time. A few dozen do in a network; for a program that keeps
/// thousands alive the blocks are placed in the order of their steps instead, which takes a little more memory and work
/// of n log n.
[[nodiscard]] MemoryPlan PlanMemory(const std::vector<Block>& blocks);

/// The second way alone: each block, as its first step comes, in the smallest gap that holds it.
[[nodiscard]] MemoryPlan PlanMemoryInOrder(const std::vector<Block>& blocks);

}  // namespace ulmora::engine::cpu
