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
};

/// Places the blocks so that no two that are alive in the same step overlap. Large blocks first, each at the lowest
/// offset at which it fits: within a few percent of the optimum on the programs that networks make, and deterministic.
[[nodiscard]] MemoryPlan PlanMemory(const std::vector<Block>& blocks);

}  // namespace ulmora::engine::cpu
