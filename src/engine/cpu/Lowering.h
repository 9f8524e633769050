#pragma once
// The interface between the compiler and the lowerings of operations in lower/: what a lowering is told, and the forms
// in which it offers to run the operation.

#include "engine/cpu/Emitter.h"
#include "engine/cpu/Executable.h"
#include "engine/cpu/Layout.h"
#include "engine/cpu/LayoutPlan.h"
#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/Program.h"

#include <cstddef>
#include <functional>
#include <string_view>
#include <vector>

namespace ulmora::engine::cpu {

/// One use of an operation as its lowering sees it.
struct LowerCall {
  const program::Program& program;
  const program::Operation& operation;
  const program::OpCall& call;
  const ExecutableOptions& options;
  const std::vector<program::ValueId>& diesHere;  ///< values that are read here once and never again

  /// The operand of a parameter; it must be given.
  [[nodiscard]] program::ValueId Operand(std::string_view parameter, std::size_t index = 0) const;
  [[nodiscard]] bool IsFloat(program::ValueId id) const {
    return StorageOf(program.at(id).type.element) == Storage::Float;
  }
  [[nodiscard]] program::ValueId result() const { return operation.results.front(); }
  [[nodiscard]] const Shape& ShapeOf(program::ValueId id) const { return program.at(id).type.shape; }
};

/// One way to run an operation. `emit` adds its steps; it is given the operation with the results to be written, whose
/// fused steps are only those that the form takes care of.
struct Form {
  PlannedForm plan;
  std::size_t fused = 0;  ///< how many of the operation's fused steps the form takes care of, from the first
  std::function<void(Emitter&, const program::Operation&)> emit;
};

/// How an operation is lowered. No forms: this use of it is left to the reference evaluation.
using Lower = std::vector<Form> (*)(const LowerCall&);

struct LoweringEntry {
  std::string_view key;
  Lower lower = nullptr;
};

/// The lowering of an operation, or null.
[[nodiscard]] Lower FindLowering(std::string_view key);

/// The operations that run by their reference evaluation: too rare in image networks for more.
[[nodiscard]] const std::vector<std::string_view>& ReferenceOperations();

/// Estimated microseconds of one core for touching that many bytes, and for that many floating-point operations.
[[nodiscard]] double MemoryCost(std::int64_t bytes);
[[nodiscard]] double ArithmeticCost(double operations);

/// Layouts that a tensor of this shape can take: Plain alone, or all; Blocked only if it fills blocks.
[[nodiscard]] std::vector<Layout> LayoutsOf(const Shape& shape);

}  // namespace ulmora::engine::cpu
