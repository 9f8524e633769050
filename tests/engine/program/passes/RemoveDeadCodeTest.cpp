#include "tests/engine/program/passes/PassTesting.h"

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

TEST(RemoveDeadCode, KeepsWhatReachesAnOutput) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId dead = builder.Unary("exp", x);
  builder.Unary("tanh", dead);
  const ValueId table = builder.Constant(Ramp({4}));
  builder.Binary("mul", x, table);
  const ValueId live = builder.Unary("relu", x);
  builder.Output(builder.Unary("square", live));
  const Program program = Rewritten(builder.program, RemoveDeadCode);
  EXPECT_THAT(KeysOf(program), ElementsAre("relu", "square"));
  EXPECT_FALSE(program.at(table).constant.has_value());
  EXPECT_EQ(program.inputs.size(), 1U);
}

TEST(RemoveDeadCode, KeepsOperationsWithOneLiveResult) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId first = builder.Call(
      "split",
      {{"x", {x}}, {"num_splits", {builder.Constant(Tensor::Int(2))}}, {"axis", {builder.Constant(Tensor::Int(0))}}});
  const ValueId second = builder.program.AddValue({"second", ProgramBuilder::AnyFloats(), {}});
  builder.program.operations.back().results = {first, second};
  builder.Output(second);
  EXPECT_THAT(KeysOf(Rewritten(builder.program, RemoveDeadCode)), ElementsAre("split"));
}

TEST(RemoveDeadCode, OperandsOfFusedStepsLive) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId other = builder.Unary("exp", x);
  const ValueId y = builder.Unary("relu", x);
  builder.Output(y);
  Program program = Specialized(builder.program);
  program.operations.back().fused.push_back({FindOp("add"), {{kPrevious}, {other}}});
  RemoveDeadCode(program);
  EXPECT_THAT(KeysOf(program), ElementsAre("exp", "relu+add"));
}

TEST(RemoveDeadCode, ConstantOutputsStay) {
  NetworkBuilder builder;
  builder.Input("x", {4});
  builder.Output(builder.Constant(Ramp({2})));
  const Program program = Rewritten(builder.program, RemoveDeadCode);
  EXPECT_TRUE(program.at(program.outputs.at(0)).constant.has_value());
}

}  // namespace
}  // namespace ulmora::engine::program
