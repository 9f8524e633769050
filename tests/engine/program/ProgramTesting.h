#pragma once
// Writes programs by hand, for tests of everything that reads or rewrites them.

#include "engine/program/OpRegistry.h"
#include "engine/program/Program.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ulmora::engine::program {

/// Appends to `program`, which may also be changed directly.
struct ProgramBuilder {
  Program program;

  explicit ProgramBuilder(int opset = 6) { program.opset = opset; }

  /// A float32 input.
  ValueId Input(std::string name, Shape shape) {
    const ValueId id = program.AddValue({std::move(name), {ElementType::Float32, std::move(shape), true}, {}});
    program.inputs.push_back(id);
    return id;
  }

  ValueId Constant(Tensor tensor) {
    return program.AddConstant("const_" + std::to_string(program.values.size()), std::move(tensor));
  }

  /// One operation with one result; both are called `name`, by default key and number.
  ValueId Call(std::string_view key, const std::map<std::string, Operands>& arguments, TensorType type = AnyFloats(),
               std::string name = "") {
    if (name.empty()) name = std::string(key) + "_" + std::to_string(program.values.size());
    Operation operation;
    operation.definition = FindOp(key);
    operation.name = name;
    operation.arguments.resize(operation.definition->parameters.size());
    for (const auto& [parameter, ids] : arguments) {
      operation.arguments.at(static_cast<std::size_t>(operation.definition->IndexOf(parameter))) = ids;
    }
    const ValueId id = program.AddValue({std::move(name), std::move(type), {}});
    operation.results = {id};
    program.operations.push_back(std::move(operation));
    return id;
  }

  void Output(ValueId id) { program.outputs.push_back(id); }

  /// Declared as floats of any shape.
  static TensorType AnyFloats() { return {ElementType::Float32, {}, false}; }
};

}  // namespace ulmora::engine::program
