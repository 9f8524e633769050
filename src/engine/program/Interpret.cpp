#include "engine/program/Interpret.h"

#include "engine/Error.h"
#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace ulmora::engine::program {
namespace {

using Known = std::vector<std::optional<Tensor>>;

/// For each value the position of the operation that reads it last; outputs are read after all of them.
std::vector<std::size_t> LastUses(const Program& program) {
  std::vector<std::size_t> last(program.values.size(), 0);
  const auto read = [&](const std::vector<Operands>& arguments, std::size_t position) {
    for (const Operands& operands : arguments) {
      for (const ValueId id : operands) {
        if (id != kPrevious) last[static_cast<std::size_t>(id)] = position;
      }
    }
  };
  for (std::size_t position = 0; position < program.operations.size(); ++position) {
    const Operation& operation = program.operations[position];
    read(operation.arguments, position);
    for (const FusedStep& step : operation.fused) read(step.arguments, position);
    for (const ValueId id : operation.results) last[static_cast<std::size_t>(id)] = position;
  }
  for (const ValueId id : program.outputs) last[static_cast<std::size_t>(id)] = program.operations.size();
  return last;
}

class Interpreter {
 public:
  Interpreter(const Program& program, std::span<const Tensor> inputs)
      : program_(program), known_(program.values.size()), last_(LastUses(program)) {
    if (inputs.size() != program.inputs.size()) {
      throw Error(Stage::Run, "program has " + std::to_string(program.inputs.size()) + " inputs, but was given " +
                                  std::to_string(inputs.size()));
    }
    for (std::size_t i = 0; i < inputs.size(); ++i) Bind(program.inputs[i], inputs[i]);
  }

  std::vector<Tensor> Run() {
    for (std::size_t position = 0; position < program_.operations.size(); ++position) {
      Execute(program_.operations[position]);
      Release(program_.operations[position], position);
    }
    std::vector<Tensor> outputs;
    for (const ValueId id : program_.outputs) outputs.push_back(Declared(id, ValueOf(id)));
    return outputs;
  }

 private:
  void Bind(ValueId id, const Tensor& tensor) {
    const Value& value = program_.at(id);
    if (tensor.shape() != value.type.shape || tensor.storage() != StorageOf(value.type.element)) {
      throw Error(Stage::Run, "input '" + value.name + "' is " + ToString(tensor.shape()) + " of " +
                                  std::string(NameOf(tensor.element())) + ", expected " + ToString(value.type.shape) +
                                  " of " + std::string(NameOf(value.type.element)));
    }
    known_[static_cast<std::size_t>(id)] = tensor;
  }

  /// Float types differ in name alone, so a value may take the name that the program gives to it.
  [[nodiscard]] Tensor Declared(ValueId id, const Tensor& tensor) const {
    const ElementType declared = program_.at(id).type.element;
    return StorageOf(declared) == tensor.storage() ? tensor.Retyped(declared) : tensor;
  }

  [[nodiscard]] const Tensor& ValueOf(ValueId id) const {
    const Value& value = program_.at(id);
    if (value.constant) return *value.constant;
    const std::optional<Tensor>& known = known_[static_cast<std::size_t>(id)];
    if (!known) throw std::logic_error("value '" + value.name + "' is read before it is computed");
    return *known;
  }

  [[nodiscard]] std::vector<std::vector<OpCall::Operand>> OperandsOf(const std::vector<Operands>& arguments,
                                                                     const Tensor* previous) const {
    std::vector<std::vector<OpCall::Operand>> operands;
    for (const Operands& ids : arguments) {
      std::vector<OpCall::Operand>& of = operands.emplace_back();
      for (const ValueId id : ids) {
        const Tensor& tensor = id == kPrevious ? *previous : ValueOf(id);
        of.push_back({tensor.type(), &tensor});
      }
    }
    return operands;
  }

  void Execute(const Operation& operation) {
    std::vector<TensorType> declared;
    for (const ValueId id : operation.results) declared.push_back(program_.at(id).type);
    const OpCall call(*operation.definition, operation.name, program_.opset, OperandsOf(operation.arguments, nullptr),
                      std::move(declared));
    std::vector<Tensor> results = operation.definition->evaluate(call);
    for (const FusedStep& step : operation.fused) {
      const Tensor previous = results.at(0);
      const OpCall next(*step.definition, operation.name, program_.opset, OperandsOf(step.arguments, &previous));
      results.at(0) = step.definition->evaluate(next).at(0);
    }
    for (std::size_t i = 0; i < operation.results.size(); ++i) {
      known_[static_cast<std::size_t>(operation.results[i])] = std::move(results.at(i));
    }
  }

  void Release(const Operation& operation, std::size_t position) {
    const auto release = [&](ValueId id) {
      if (id != kPrevious && last_[static_cast<std::size_t>(id)] == position) {
        known_[static_cast<std::size_t>(id)].reset();
      }
    };
    const auto releaseAll = [&](const std::vector<Operands>& arguments) {
      for (const Operands& ids : arguments) std::for_each(ids.begin(), ids.end(), release);
    };
    releaseAll(operation.arguments);
    for (const FusedStep& step : operation.fused) releaseAll(step.arguments);
    std::for_each(operation.results.begin(), operation.results.end(), release);
  }

  const Program& program_;
  Known known_;
  std::vector<std::size_t> last_;
};

}  // namespace

std::vector<Tensor> Interpret(const Program& program, std::span<const Tensor> inputs) {
  return Interpreter(program, inputs).Run();
}

Tensor Interpret(const Program& program, const Tensor& input) {
  if (program.outputs.size() != 1) {
    throw Error(Stage::Run, "program has " + std::to_string(program.outputs.size()) + " outputs, expected 1");
  }
  return Interpret(program, std::span(&input, 1)).front();
}

}  // namespace ulmora::engine::program
