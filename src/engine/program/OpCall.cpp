#include "engine/program/OpCall.h"

#include "engine/Error.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/Program.h"
#include "engine/program/ShapeMath.h"

#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <utility>

namespace ulmora::engine::program {
namespace {

std::size_t RequireIndex(const OpDefinition& definition, std::string_view parameter) {
  const int index = definition.IndexOf(parameter);
  if (index < 0) {
    throw std::logic_error("operation " + std::string(definition.key) + " has no parameter " + std::string(parameter));
  }
  return static_cast<std::size_t>(index);
}

std::vector<std::vector<OpCall::Operand>> OperandsOf(const Program& program, const Operation& operation) {
  std::vector<std::vector<OpCall::Operand>> operands;
  operands.reserve(operation.arguments.size());
  for (const Operands& argument : operation.arguments) {
    std::vector<OpCall::Operand>& group = operands.emplace_back();
    group.reserve(argument.size());
    for (const ValueId id : argument) {
      const Value& value = program.at(id);
      group.push_back({value.type, value.constant ? &*value.constant : nullptr});
    }
  }
  return operands;
}

std::string Quoted(std::string_view text) {
  return "'" + std::string(text) + "'";
}

}  // namespace

OpCall::OpCall(const OpDefinition& definition, std::string_view name, int opset,
               std::vector<std::vector<Operand>> operands, std::vector<TensorType> declared)
    : definition_(&definition),
      name_(name),
      opset_(opset),
      operands_(std::move(operands)),
      declared_(std::move(declared)) {
  if (operands_.size() != definition.parameters.size()) {
    throw std::logic_error("operands of " + std::string(definition.key) + " are not aligned with its parameters");
  }
  for (std::size_t i = 0; i < operands_.size(); ++i) {
    const Parameter& parameter = definition.parameters[i];
    if (operands_[i].empty() && parameter.presence != Presence::Optional) {
      Fail("parameter " + Quoted(parameter.name) + " is missing");
    }
    if (operands_[i].size() > 1 && parameter.presence != Presence::Variadic) {
      Fail("parameter " + Quoted(parameter.name) + " has " + std::to_string(operands_[i].size()) +
           " operands, expected 1");
    }
  }
}

OpCall::OpCall(const Program& program, const Operation& operation)
    : OpCall(*operation.definition, operation.name, program.opset, OperandsOf(program, operation)) {
  declared_.reserve(operation.results.size());
  for (const ValueId id : operation.results) declared_.push_back(program.at(id).type);
}

const OpCall::Operand* OpCall::Find(std::string_view parameter, std::size_t index) const {
  const std::vector<Operand>& group = operands_[RequireIndex(*definition_, parameter)];
  return index < group.size() ? &group[index] : nullptr;
}

const std::optional<Tensor>& OpCall::Fallback(std::string_view parameter) const {
  return definition_->parameters[RequireIndex(*definition_, parameter)].fallback;
}

bool OpCall::Has(std::string_view parameter) const {
  return Find(parameter, 0) != nullptr;
}

std::size_t OpCall::Count(std::string_view parameter) const {
  return operands_[RequireIndex(*definition_, parameter)].size();
}

const TensorType& OpCall::Type(std::string_view parameter, std::size_t index) const {
  const Operand* operand = Find(parameter, index);
  if (operand == nullptr) Fail("parameter " + Quoted(parameter) + " is missing");
  return operand->type;
}

const Shape& OpCall::ShapeOf(std::string_view parameter, std::size_t index) const {
  return Type(parameter, index).shape;
}

const Tensor& OpCall::Value(std::string_view parameter, std::size_t index) const {
  const Operand* operand = Find(parameter, index);
  if (operand == nullptr) {
    const std::optional<Tensor>& fallback = Fallback(parameter);
    if (!fallback) Fail("parameter " + Quoted(parameter) + " is missing");
    return *fallback;
  }
  if (operand->value == nullptr) Fail("parameter " + Quoted(parameter) + " must be a constant");
  return *operand->value;
}

bool OpCall::IsKnown(std::string_view parameter, std::size_t index) const {
  const Operand* operand = Find(parameter, index);
  return operand != nullptr ? operand->value != nullptr : Fallback(parameter).has_value();
}

const Tensor& OpCall::Scalar(std::string_view parameter) const {
  const Tensor& tensor = Value(parameter);
  if (tensor.count() != 1) {
    Fail("parameter " + Quoted(parameter) + " has shape " + ToString(tensor.shape()) + ", expected a single value");
  }
  return tensor;
}

const Tensor& OpCall::Vector(std::string_view parameter) const {
  const Tensor& tensor = Value(parameter);
  if (tensor.shape().size() > 1) {
    Fail("parameter " + Quoted(parameter) + " has shape " + ToString(tensor.shape()) + ", expected a vector");
  }
  return tensor;
}

void OpCall::FailKind(std::string_view parameter, const Tensor& tensor, std::string_view expected) const {
  Fail("parameter " + Quoted(parameter) + " is of type " + std::string(NameOf(tensor.element())) + ", expected " +
       std::string(expected));
}

std::vector<std::int64_t> OpCall::WholeNumbers(std::string_view parameter, const Tensor& tensor) const {
  if (tensor.storage() == Storage::Int) {
    const std::span<const std::int32_t> ints = tensor.ints();
    return {ints.begin(), ints.end()};
  }
  if (tensor.storage() != Storage::Float) FailKind(parameter, tensor, "an integer");
  std::vector<std::int64_t> numbers;
  for (const float value : tensor.floats()) {
    // Below 2^53 everything whole converts exactly; NaN fails the comparison, too.
    if (!(std::abs(value) < 9.0e15F) || value != std::trunc(value)) {
      Fail("parameter " + Quoted(parameter) + " is " + std::to_string(value) + ", expected a whole number");
    }
    numbers.push_back(static_cast<std::int64_t>(value));
  }
  return numbers;
}

std::int64_t OpCall::Int(std::string_view parameter) const {
  return WholeNumbers(parameter, Scalar(parameter)).front();
}

float OpCall::Float(std::string_view parameter) const {
  const Tensor& tensor = Scalar(parameter);
  if (tensor.storage() == Storage::Int) return static_cast<float>(tensor.ints().front());
  if (tensor.storage() != Storage::Float) FailKind(parameter, tensor, "a number");
  return tensor.floats().front();
}

bool OpCall::Bool(std::string_view parameter) const {
  const Tensor& tensor = Scalar(parameter);
  if (tensor.storage() != Storage::Bool) FailKind(parameter, tensor, "bool");
  return tensor.bools().front() != 0;
}

std::string OpCall::Text(std::string_view parameter) const {
  const Tensor& tensor = Scalar(parameter);
  if (tensor.storage() != Storage::String) FailKind(parameter, tensor, "string");
  return tensor.strings().front();
}

std::vector<std::int64_t> OpCall::Ints(std::string_view parameter) const {
  return WholeNumbers(parameter, Vector(parameter));
}

std::vector<bool> OpCall::Bools(std::string_view parameter) const {
  const Tensor& tensor = Vector(parameter);
  if (tensor.storage() != Storage::Bool) FailKind(parameter, tensor, "bool");
  std::vector<bool> flags;
  for (const std::uint8_t flag : tensor.bools()) flags.push_back(flag != 0);
  return flags;
}

std::int64_t OpCall::Axis(std::int64_t axis, std::size_t rank) const {
  const std::optional<std::int64_t> normalized = NormalizeAxis(axis, rank);
  if (!normalized) {
    Fail("axis " + std::to_string(axis) + " is outside a tensor of rank " + std::to_string(rank));
  }
  return *normalized;
}

std::optional<Shape> OpCall::DeclaredShape(std::size_t result) const {
  if (result >= declared_.size() || !declared_[result].rankKnown || !IsStatic(declared_[result].shape)) {
    return std::nullopt;
  }
  return declared_[result].shape;
}

void OpCall::Fail(const std::string& message) const {
  throw Error(Stage::Translate, std::string(definition_->key) + " " + Quoted(name_) + ": " + message);
}

}  // namespace ulmora::engine::program
