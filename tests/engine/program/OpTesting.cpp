#include "tests/engine/program/OpTesting.h"

#include "engine/Error.h"
#include "engine/program/OpCall.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace ulmora::engine::program {
namespace {

/// The call of operation 'op'; operands hold pointers into `operands`.
OpCall MakeCall(std::string_view key, const TestOperands& operands, int opset) {
  const OpDefinition* definition = FindOp(key);
  if (definition == nullptr) throw std::invalid_argument("no operation " + std::string(key));
  std::vector<std::vector<OpCall::Operand>> groups(definition->parameters.size());
  for (const auto& [name, operand] : operands) {
    const int index = definition->IndexOf(name);
    if (index < 0) throw std::invalid_argument(std::string(key) + " has no parameter " + name);
    for (const auto& item : operand.items) {
      const Tensor* tensor = std::get_if<Tensor>(&item);
      const TensorType type = tensor != nullptr ? tensor->type() : std::get<TensorType>(item);
      groups[static_cast<std::size_t>(index)].push_back({type, tensor});
    }
  }
  return OpCall(*definition, "op", opset, std::move(groups));
}

}  // namespace

std::vector<TensorType> InferOp(std::string_view key, const TestOperands& operands, int opset) {
  const OpCall call = MakeCall(key, operands, opset);
  return call.definition().infer(call);
}

Shape InferShape(std::string_view key, const TestOperands& operands, int opset) {
  return InferOp(key, operands, opset).at(0).shape;
}

std::vector<Tensor> EvaluateOp(std::string_view key, const TestOperands& operands, int opset) {
  const OpCall call = MakeCall(key, operands, opset);
  const std::vector<TensorType> types = call.definition().infer(call);
  std::vector<Tensor> results = call.definition().evaluate(call);
  EXPECT_EQ(results.size(), types.size());
  for (std::size_t i = 0; i < results.size() && i < types.size(); ++i) {
    EXPECT_EQ(ToString(results[i].shape()), ToString(types[i].shape)) << key;
    EXPECT_EQ(NameOf(results[i].element()), NameOf(types[i].element)) << key;
  }
  return results;
}

Tensor EvaluateOne(std::string_view key, const TestOperands& operands, int opset) {
  return EvaluateOp(key, operands, opset).at(0);
}

std::string RefusalOf(std::string_view key, const TestOperands& operands, int opset) {
  try {
    const OpCall call = MakeCall(key, operands, opset);
    ADD_FAILURE() << key << " accepted, with result " << ToString(call.definition().infer(call).at(0).shape);
  } catch (const Error& error) {
    EXPECT_EQ(error.stage(), Stage::Translate);
    return error.what();
  }
  return "";
}

std::vector<float> FloatsOf(const Tensor& tensor) {
  return {tensor.floats().begin(), tensor.floats().end()};
}

std::vector<std::int32_t> IntsOf(const Tensor& tensor) {
  return {tensor.ints().begin(), tensor.ints().end()};
}

std::vector<bool> BoolsOf(const Tensor& tensor) {
  return {tensor.bools().begin(), tensor.bools().end()};
}

Tensor Ramp(const Shape& shape, float first, float step) {
  std::vector<float> values(static_cast<std::size_t>(ElementCount(shape)));
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = first + step * static_cast<float>(i);
  return Tensor::Floats(shape, std::move(values));
}

TensorType FloatType(Shape shape) {
  return {ElementType::Float32, std::move(shape), true};
}

TensorType IntType(Shape shape) {
  return {ElementType::Int32, std::move(shape), true};
}

}  // namespace ulmora::engine::program
