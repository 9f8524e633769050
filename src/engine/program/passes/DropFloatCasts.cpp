// Given y = cast(x) between float types, or y = identity(x), result: what read y reads x. All arithmetic is float32, so
// such a cast has nothing to do.
//
// An output keeps its own value, with the element type that the package declares for it: if y is an output and x the
// result of an operation, that operation computes y itself. Where that is impossible, because x is an input of the
// program, a constant or an output of its own, the operation stays and copies.

#include "engine/program/OpRegistry.h"
#include "engine/program/passes/Pass.h"
#include "engine/program/passes/Rewriter.h"

#include <utility>
#include <vector>

namespace ulmora::engine::program {
namespace {

/// Which value stands for which.
class Renaming {
 public:
  explicit Renaming(std::size_t values) : target_(values) {
    for (std::size_t i = 0; i < values; ++i) target_[i] = static_cast<ValueId>(i);
  }

  void Add(ValueId from, ValueId to) { target_[static_cast<std::size_t>(from)] = to; }

  [[nodiscard]] ValueId Of(ValueId id) {
    ValueId end = id;
    while (target_[static_cast<std::size_t>(end)] != end) end = target_[static_cast<std::size_t>(end)];
    // Shortening the path keeps long chains of casts from being walked again and again.
    while (id != end) id = std::exchange(target_[static_cast<std::size_t>(id)], end);
    return end;
  }

  void Apply(std::vector<Operands>& arguments) {
    for (Operands& ids : arguments) {
      for (ValueId& id : ids) {
        if (id != kPrevious) id = Of(id);
      }
    }
  }

 private:
  std::vector<ValueId> target_;
};

bool DoesNothing(const Program& program, const Operation& operation) {
  if (!operation.fused.empty()) return false;
  if (operation.definition->key == "identity") return true;
  if (operation.definition->key != "cast") return false;
  const auto isFloat = [&](ValueId id) { return StorageOf(program.at(id).type.element) == Storage::Float; };
  return isFloat(*Argument(operation, "x")) && isFloat(operation.results.front());
}

}  // namespace

void DropFloatCasts(Program& program) {
  Renaming renaming(program.values.size());
  std::vector<bool> isOutput(program.values.size(), false);
  std::vector<bool> isComputed(program.values.size(), false);
  for (const ValueId id : program.outputs) isOutput[static_cast<std::size_t>(id)] = true;

  std::vector<Operation> kept;
  for (Operation& operation : program.operations) {
    for (const ValueId id : operation.results) isComputed[static_cast<std::size_t>(id)] = true;
    if (!DoesNothing(program, operation)) {
      kept.push_back(std::move(operation));
      continue;
    }
    const ValueId x = renaming.Of(*Argument(operation, "x"));
    const ValueId y = operation.results.front();
    if (!isOutput[static_cast<std::size_t>(y)]) {
      renaming.Add(y, x);
    } else if (isComputed[static_cast<std::size_t>(x)] && !isOutput[static_cast<std::size_t>(x)]) {
      renaming.Add(x, y);
    } else {
      kept.push_back(std::move(operation));
    }
  }
  for (Operation& operation : kept) {
    renaming.Apply(operation.arguments);
    for (FusedStep& step : operation.fused) renaming.Apply(step.arguments);
    for (ValueId& id : operation.results) id = renaming.Of(id);
  }
  program.operations = std::move(kept);
}

}  // namespace ulmora::engine::program
