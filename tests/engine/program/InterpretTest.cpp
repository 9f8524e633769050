#include "engine/Error.h"
#include "engine/program/Interpret.h"
#include "tests/engine/program/passes/PassTesting.h"

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

TEST(Interpret, RunsOperationsInOrder) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {3});
  const ValueId doubled = builder.Binary("mul", x, 2.0F);
  builder.Output(builder.Binary("add", doubled, x));
  const Program program = Specialized(builder.program);
  EXPECT_THAT(FloatsOf(Interpret(program, Ramp({3}, 1.0F))), ElementsAre(3, 6, 9));
}

TEST(Interpret, AppliesFusedStepsInOrder) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {1, 1, 1, 3});
  const ValueId half = builder.Scalar(0.5F);
  builder.Output(builder.Binary("add", x, -2.0F));
  Program program = Specialized(builder.program);
  program.operations.at(0).fused.push_back({FindOp("relu"), {{kPrevious}}});
  program.operations.at(0).fused.push_back({FindOp("sub"), {{half}, {kPrevious}}});
  EXPECT_THAT(FloatsOf(Interpret(program, Ramp({1, 1, 1, 3}, 1.0F))), ElementsAre(0.5F, 0.5F, -0.5F));
}

TEST(Interpret, OutputsMayBeInputsAndConstantsAndTheSameTwice) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {2});
  const ValueId c = builder.Constant(Ramp({2}, 5.0F));
  for (const ValueId id : {x, c, x}) builder.Output(id);
  const std::vector<Tensor> inputs = {Ramp({2})};
  const std::vector<Tensor> outputs = Interpret(builder.program, inputs);
  ASSERT_EQ(outputs.size(), 3U);
  EXPECT_THAT(FloatsOf(outputs[0]), ElementsAre(0, 1));
  EXPECT_THAT(FloatsOf(outputs[1]), ElementsAre(5, 6));
  EXPECT_THAT(FloatsOf(outputs[2]), ElementsAre(0, 1));
}

TEST(Interpret, OutputsHaveTheDeclaredFloatType) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {2});
  const ValueId y = builder.Unary("relu", x);
  builder.Output(y);
  Program program = Specialized(builder.program);
  program.at(y).type.element = ElementType::Float16;
  EXPECT_EQ(Interpret(program, Ramp({2})).element(), ElementType::Float16);
}

TEST(Interpret, RefusesInputsThatDoNotFit) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {2});
  builder.Output(builder.Unary("relu", x));
  const Program program = Specialized(builder.program);
  const auto failure = [&program](const std::vector<Tensor>& inputs) -> std::string {
    try {
      static_cast<void>(Interpret(program, inputs));
    } catch (const Error& error) {
      EXPECT_EQ(error.stage(), Stage::Run);
      return error.what();
    }
    return "none";
  };
  EXPECT_EQ(failure({Ramp({3})}), "input 'x' is [3] of float32, expected [2] of float32");
  EXPECT_EQ(failure({Tensor::IntVector({1, 2})}), "input 'x' is [2] of int32, expected [2] of float32");
  EXPECT_EQ(failure({}), "program has 1 inputs, but was given 0");
}

}  // namespace
}  // namespace ulmora::engine::program
