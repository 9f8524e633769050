#pragma once
// Calls single operations of the registry by name, as the tests of all families need it.

#include "engine/Tensor.h"
#include "engine/program/OpRegistry.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ulmora::engine::program {

/// One operand of a call: a tensor, a type alone (a value that is known only at run time), or several for a variadic
/// parameter. Numbers and texts stand for scalars, lists of ints for int32 vectors.
struct TestOperand {
  TestOperand(Tensor tensor) : items{std::move(tensor)} {}               // NOLINT: implicit for brevity
  TestOperand(TensorType type) : items{std::move(type)} {}               // NOLINT
  TestOperand(float value) : TestOperand(Tensor::Float(value)) {}        // NOLINT
  TestOperand(double value) : TestOperand(static_cast<float>(value)) {}  // NOLINT
  TestOperand(int value) : TestOperand(Tensor::Int(value)) {}            // NOLINT
  TestOperand(bool value) : TestOperand(Tensor::Bool(value)) {}          // NOLINT
  TestOperand(const char* text) : TestOperand(Tensor::Text(text)) {}     // NOLINT
  TestOperand(std::initializer_list<std::int32_t> list)                  // NOLINT
      : TestOperand(Tensor::IntVector(std::vector<std::int32_t>(list))) {}
  TestOperand(const std::vector<Tensor>& tensors) : items(tensors.begin(), tensors.end()) {}  // NOLINT

  std::vector<std::variant<Tensor, TensorType>> items;
};

using TestOperands = std::map<std::string, TestOperand>;

inline constexpr int kTestOpset = 6;

/// Result types by the shape rule.
[[nodiscard]] std::vector<TensorType> InferOp(std::string_view key, const TestOperands& operands,
                                              int opset = kTestOpset);
/// Shape of the first result by the shape rule.
[[nodiscard]] Shape InferShape(std::string_view key, const TestOperands& operands, int opset = kTestOpset);

/// Results of the reference evaluation; adds a test failure if they do not have the types of the shape rule.
[[nodiscard]] std::vector<Tensor> EvaluateOp(std::string_view key, const TestOperands& operands,
                                             int opset = kTestOpset);
/// The first result.
[[nodiscard]] Tensor EvaluateOne(std::string_view key, const TestOperands& operands, int opset = kTestOpset);

/// The message with which the shape rule refuses the operands; a test failure and "" if it does not, or if the error is
/// not one of Stage::Translate.
[[nodiscard]] std::string RefusalOf(std::string_view key, const TestOperands& operands, int opset = kTestOpset);

/// Elements as vectors, for EXPECT_EQ and matchers.
[[nodiscard]] std::vector<float> FloatsOf(const Tensor& tensor);
[[nodiscard]] std::vector<std::int32_t> IntsOf(const Tensor& tensor);
[[nodiscard]] std::vector<bool> BoolsOf(const Tensor& tensor);

/// Floats first, first + step, ... of the shape.
[[nodiscard]] Tensor Ramp(const Shape& shape, float first = 0.0F, float step = 1.0F);

/// A type without a value.
[[nodiscard]] TensorType FloatType(Shape shape);
[[nodiscard]] TensorType IntType(Shape shape);

}  // namespace ulmora::engine::program
