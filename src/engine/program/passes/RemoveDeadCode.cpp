// Given operations none of whose results reaches an output, result: they are gone. Constants that nobody reads give up
// their elements; their values stay in the list, so that no id changes.

#include "engine/program/passes/Pass.h"

#include <algorithm>
#include <vector>

namespace ulmora::engine::program {
namespace {

void MarkOperands(const std::vector<Operands>& arguments, std::vector<bool>& live) {
  for (const Operands& ids : arguments) {
    for (const ValueId id : ids) {
      if (id != kPrevious) live[static_cast<std::size_t>(id)] = true;
    }
  }
}

}  // namespace

void RemoveDeadCode(Program& program) {
  std::vector<bool> live(program.values.size(), false);
  for (const ValueId id : program.outputs) live[static_cast<std::size_t>(id)] = true;

  std::vector<Operation> kept;
  for (auto operation = program.operations.rbegin(); operation != program.operations.rend(); ++operation) {
    const auto isLive = [&live](ValueId id) { return static_cast<bool>(live[static_cast<std::size_t>(id)]); };
    if (!std::ranges::any_of(operation->results, isLive)) continue;
    MarkOperands(operation->arguments, live);
    for (const FusedStep& step : operation->fused) MarkOperands(step.arguments, live);
    kept.push_back(std::move(*operation));
  }
  std::ranges::reverse(kept);
  program.operations = std::move(kept);

  for (std::size_t i = 0; i < program.values.size(); ++i) {
    if (!live[i]) program.values[i].constant.reset();
  }
}

}  // namespace ulmora::engine::program
