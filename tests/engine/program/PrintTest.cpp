#include "engine/program/Print.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/ProgramTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

TEST(Print, WritesEveryPartOfAProgram) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {1, 3, kUnknownDim, 8});
  const ValueId w = builder.program.AddConstant("w", Ramp({4, 3, 3, 3}));
  const ValueId strides = builder.Constant(Tensor::IntVector({1, 2}));
  const ValueId padType = builder.Constant(Tensor::Text("valid"));
  const ValueId conv =
      builder.Call("conv", {{"x", {x}}, {"weight", {w}}, {"strides", {strides}}, {"pad_type", {padType}}},
                   FloatType({1, 4, kUnknownDim, 3}), "c1");
  builder.program.operations.back().fused.push_back({FindOp("relu"), {{kPrevious}}});
  const ValueId slope = builder.Constant(Tensor::Float(0.25F));
  const ValueId leaky =
      builder.Call("leaky_relu", {{"x", {conv}}, {"alpha", {slope}}}, ProgramBuilder::AnyFloats(), "y");
  builder.Output(leaky);
  builder.Output(builder.Constant(Tensor::Bool(true)));
  EXPECT_EQ(Print(builder.program),
            "input x: float32 [1, 3, ?, 8]\n"
            "c1: float32 [1, 4, ?, 3] = conv(x=x, weight=w: float32 [4, 3, 3, 3], strides=[1, 2], "
            "pad_type=\"valid\"), relu(x=.)\n"
            "y: float32 [...] = leaky_relu(x=c1, alpha=0.25)\n"
            "output y\n"
            "output true\n");
}

}  // namespace
}  // namespace ulmora::engine::program
