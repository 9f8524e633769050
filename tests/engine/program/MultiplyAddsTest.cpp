#include "engine/program/MultiplyAdds.h"
#include "engine/program/Specialize.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/ProgramTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

/// Of one operation on float inputs of these shapes, besides constants.
std::int64_t CountOf(std::string_view key, const std::map<std::string, Shape>& inputs,
                     const std::map<std::string, Tensor>& constants = {}) {
  ProgramBuilder builder;
  std::map<std::string, Operands> arguments;
  std::vector<Shape> shapes;
  for (const auto& [name, shape] : inputs) {
    arguments[name] = {builder.Input(name, shape)};
    shapes.push_back(shape);
  }
  for (const auto& [name, tensor] : constants) arguments[name] = {builder.Constant(tensor)};
  builder.Output(builder.Call(key, arguments));
  return MultiplyAdds(Specialize(builder.program, shapes));
}

TEST(MultiplyAdds, Convolutions) {
  // 5 x 7 outputs of 8 channels, each over 4 channels of 3 x 3.
  EXPECT_EQ(CountOf("conv", {{"x", {1, 4, 7, 9}}}, {{"weight", Ramp({8, 4, 3, 3})}}), 5 * 7 * 8 * 4 * 9);
  // In two groups each output is over half of the channels.
  EXPECT_EQ(CountOf("conv", {{"x", {1, 4, 7, 9}}}, {{"weight", Ramp({8, 2, 3, 3})}, {"groups", Tensor::Int(2)}}),
            5 * 7 * 8 * 2 * 9);
  // Every one of 3 x 5 inputs of 4 channels reaches 6 channels of 2 x 2.
  EXPECT_EQ(CountOf("conv_transpose", {{"x", {1, 4, 3, 5}}}, {{"weight", Ramp({4, 6, 2, 2})}}), 3 * 5 * 4 * 6 * 4);
}

TEST(MultiplyAdds, MatrixProducts) {
  EXPECT_EQ(CountOf("linear", {{"x", {2, 5, 4}}}, {{"weight", Ramp({3, 4})}}), 2 * 5 * 4 * 3);
  EXPECT_EQ(CountOf("matmul", {{"x", {2, 5, 4}}, {"y", {2, 4, 3}}}), 2 * 5 * 4 * 3);
  EXPECT_EQ(CountOf("matmul", {{"x", {2, 4, 5}}, {"y", {2, 4, 3}}}, {{"transpose_x", Tensor::Bool(true)}}),
            2 * 5 * 4 * 3);
}

TEST(MultiplyAdds, Attention) {
  // Of 6 queries with 5 keys of 4 elements, and of 5 weights with values of 3 elements.
  EXPECT_EQ(CountOf("scaled_dot_product_attention", {{"query", {2, 6, 4}}, {"key", {2, 5, 4}}, {"value", {2, 5, 3}}}),
            2 * 6 * 5 * (4 + 3));
}

TEST(MultiplyAdds, ElementwiseWorkIsLeftOut) {
  EXPECT_EQ(CountOf("sqrt", {{"x", {1, 4, 7, 9}}}), 0);
}

}  // namespace
}  // namespace ulmora::engine::program
