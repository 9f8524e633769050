#pragma once
// How much of a program may be computed when it is opened instead of when it runs.

#include "engine/program/Program.h"

#include <cstdint>

namespace ulmora::engine::program {

/// What one operation costs to fold.
struct FoldingCost {
  std::int64_t read = 0;     ///< elements of the operands
  std::int64_t written = 0;  ///< elements of all results together
  std::int64_t largest = 0;  ///< elements of the largest result
  bool costly = false;       ///< work grows with the product of both, not with their sum
};

/// Memory and work that are left for folding one program. Both are bounded by what the package itself brought along: a
/// file of a few bytes can ask for results of any size. See limits::kFoldedElements and what stands beside it.
class FoldingBudget {
 public:
  /// The budget for a program with these constants; elements that several of them share count once.
  explicit FoldingBudget(const Program& program);

  /// Takes the cost off the budget. False, and nothing is taken, if it does not fit.
  [[nodiscard]] bool Take(const FoldingCost& cost);

 private:
  std::int64_t largest_ = 0;
  std::int64_t elements_ = 0;
  std::int64_t work_ = 0;
};

}  // namespace ulmora::engine::program
