#pragma once
// The one intermediate form: operations over typed tensor values in single-assignment order, constants as values.
// Importers build it with unknown dimensions, Specialize binds them, the passes rewrite it, the CPU compiler lowers it.

#include "engine/Tensor.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ulmora::engine::program {

struct OpDefinition;

/// Index into Program::values.
using ValueId = std::int32_t;

/// In a fused step: the result of the operation (or of the step before).
inline constexpr ValueId kPrevious = -1;

/// Operands of one parameter: none if it is absent, one as a rule, several for a variadic parameter.
using Operands = std::vector<ValueId>;

/// A value of the program. A value with a constant has no producer; every other one is a program input or the result of
/// exactly one operation.
struct Value {
  std::string name;
  TensorType type;  ///< declared by the package until Specialize has replaced it by the inferred one
  std::optional<Tensor> constant;
};

/// An elementwise step that the compiler executes together with the operation before it.
struct FusedStep {
  const OpDefinition* definition = nullptr;
  std::vector<Operands> arguments;  ///< aligned with definition->parameters; the flowing value is kPrevious
};

/// One operation. All attributes are operands, too: axes, strides and modes are constant values.
struct Operation {
  const OpDefinition* definition = nullptr;
  std::string name;                 ///< for messages
  std::vector<Operands> arguments;  ///< aligned with definition->parameters
  std::vector<ValueId> results;
  std::vector<FusedStep> fused;  ///< applied to the first result, in order
};

/// A whole network. `opset` is 5 for CoreML5 up to 9: some operations changed their meaning between them.
struct Program {
  int opset = 5;
  std::vector<Value> values;
  std::vector<Operation> operations;  ///< in an order in which they can run
  std::vector<ValueId> inputs;
  std::vector<ValueId> outputs;

  ValueId AddValue(Value value);
  ValueId AddConstant(std::string name, Tensor tensor);
  [[nodiscard]] const Value& at(ValueId id) const { return values[static_cast<std::size_t>(id)]; }
  [[nodiscard]] Value& at(ValueId id) { return values[static_cast<std::size_t>(id)]; }
};

}  // namespace ulmora::engine::program
