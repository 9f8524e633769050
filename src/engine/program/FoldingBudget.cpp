#include "engine/program/FoldingBudget.h"

#include "engine/Limits.h"

#include <unordered_set>

namespace ulmora::engine::program {
namespace {

std::int64_t ConstantElements(const Program& program) {
  std::unordered_set<const void*> counted;
  std::int64_t elements = 0;
  for (const Value& value : program.values) {
    if (value.constant && counted.insert(value.constant->identity()).second) elements += value.constant->count();
  }
  return elements;
}

}  // namespace

// Constants have at most limits::kMaxConstantBytes elements, so none of the products overflows.
FoldingBudget::FoldingBudget(const Program& program) {
  const std::int64_t constants = ConstantElements(program);
  largest_ = limits::kMaxFoldedElements + constants;
  elements_ = limits::kFoldedElements + limits::kFoldedPerConstant * constants;
  work_ = limits::kFoldingWork + limits::kFoldingWorkPerConstant * constants;
}

bool FoldingBudget::Take(const FoldingCost& cost) {
  if (cost.largest > largest_ || cost.written > elements_) return false;
  if (cost.costly && cost.written > 0 && cost.read > work_ / cost.written) return false;
  const std::int64_t work = cost.costly ? cost.read * cost.written : cost.read + cost.written;
  if (work > work_) return false;
  elements_ -= cost.written;
  work_ -= work;
  return true;
}

}  // namespace ulmora::engine::program
