#include "engine/Error.h"
#include "engine/Limits.h"
#include "engine/program/Specialize.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/ProgramTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

std::string MessageOf(const Program& program, const std::vector<Shape>& shapes) {
  try {
    static_cast<void>(Specialize(program, shapes));
  } catch (const Error& error) {
    EXPECT_EQ(error.stage(), Stage::Translate);
    return error.what();
  }
  ADD_FAILURE() << "accepted";
  return "";
}

TEST(Specialize, BindsUnknownDimensions) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {1, 3, kUnknownDim, kUnknownDim});
  const ValueId y = builder.Call("sqrt", {{"x", {x}}}, FloatType({1, 3, kUnknownDim, kUnknownDim}));
  builder.Output(y);
  const Program bound = Specialize(builder.program, {{1, 3, 4, 5}});
  EXPECT_EQ(bound.at(x).type.shape, (Shape{1, 3, 4, 5}));
  EXPECT_EQ(bound.at(y).type.shape, (Shape{1, 3, 4, 5}));
  EXPECT_EQ(bound.operations.size(), 1U);
  EXPECT_EQ(builder.program.at(y).type.shape.at(2), kUnknownDim);  // the original is untouched
}

TEST(Specialize, RefusesAnInputThatContradictsItsDeclaration) {
  ProgramBuilder builder;
  builder.Input("image", {1, 3, kUnknownDim, 8});
  EXPECT_EQ(MessageOf(builder.program, {{1, 3, 4, 5}}), "input 'image' has shape [1, 3, 4, 5], expected [1, 3, ?, 8]");
  EXPECT_EQ(MessageOf(builder.program, {{3, 4, 8}}), "input 'image' has shape [3, 4, 8], expected [1, 3, ?, 8]");
  EXPECT_EQ(MessageOf(builder.program, {{1, 3, 0, 8}}), "input 'image' has shape [1, 3, 0, 8] without elements");
  EXPECT_EQ(MessageOf(builder.program, {}), "the network has 1 inputs, 0 shapes were given");
}

TEST(Specialize, FoldsWhatIsConstant) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId c = builder.Constant(Tensor::Floats({2}, {4.0F, 9.0F}));
  const ValueId root = builder.Call("sqrt", {{"x", {c}}}, FloatType({2}));
  const ValueId twice = builder.Call("square", {{"x", {root}}}, FloatType({2}));
  const ValueId y = builder.Call("sqrt", {{"x", {x}}}, FloatType({4}));
  builder.Output(y);
  builder.Output(twice);
  const Program bound = Specialize(builder.program, {{4}});
  ASSERT_EQ(bound.operations.size(), 1U);
  EXPECT_EQ(bound.operations[0].results, std::vector<ValueId>{y});
  ASSERT_TRUE(bound.at(twice).constant.has_value());
  EXPECT_THAT(FloatsOf(*bound.at(root).constant), ElementsAre(2, 3));
  EXPECT_THAT(FloatsOf(*bound.at(twice).constant), ElementsAre(4, 9));
}

TEST(Specialize, RefusesResultsThatContradictTheirDeclaration) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {4});
  builder.Call("sqrt", {{"x", {x}}}, FloatType({5}), "root");
  EXPECT_EQ(MessageOf(builder.program, {{4}}),
            "sqrt 'root': result 'root' is declared as float32 [5], but is float32 [4]");
  builder.program.values.back().type = IntType({4});
  EXPECT_EQ(MessageOf(builder.program, {{4}}),
            "sqrt 'root': result 'root' is declared as int32 [4], but is float32 [4]");
  builder.program.values.back().type = {ElementType::Float16, {}, false};
  EXPECT_EQ(Specialize(builder.program, {{4}}).values.back().type, FloatType({4}));
}

TEST(Specialize, RefusesAWrongNumberOfResults) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId y = builder.Call("sqrt", {{"x", {x}}}, FloatType({4}), "root");
  builder.program.operations.back().results = {y, y};
  EXPECT_EQ(MessageOf(builder.program, {{4}}), "sqrt 'root': has 2 results, expected 1");
}

TEST(Specialize, RefusesRunTimeValuesWhereConstantsAreDemanded) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId low = builder.Input("low", {});
  builder.Call("threshold", {{"x", {x}}, {"alpha", {low}}}, FloatType({4}), "t");
  EXPECT_EQ(MessageOf(builder.program, {{4}, {}}), "threshold 't': parameter 'alpha' must be a constant");
}

TEST(Specialize, FollowsShapesThroughConstants) {
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {1, 3, kUnknownDim, kUnknownDim});
  const ValueId dims = builder.Call("shape", {{"x", {x}}}, IntType({4}));
  const ValueId factors = builder.Constant(Tensor::IntVector({1, 1, 2, 2}));
  const ValueId doubled = builder.Call("mul", {{"x", {dims}}, {"y", {factors}}}, IntType({4}));
  const ValueId zeros = builder.Call("fill", {{"shape", {doubled}}});
  builder.Output(zeros);
  const Program bound = Specialize(builder.program, {{1, 3, 2, 5}});
  EXPECT_TRUE(bound.operations.empty());
  EXPECT_EQ(bound.at(zeros).type.shape, (Shape{1, 3, 4, 10}));
  EXPECT_TRUE(bound.at(zeros).constant.has_value());
}

TEST(Specialize, LeavesLargeResultsToTheRun) {
  ProgramBuilder builder;
  const ValueId shape = builder.Constant(Tensor::IntVector({(1 << 28) + 1}));
  const ValueId zeros = builder.Call("fill", {{"shape", {shape}}});
  builder.Output(zeros);
  const Program bound = Specialize(builder.program, {});
  EXPECT_EQ(bound.operations.size(), 1U);
  EXPECT_EQ(bound.at(zeros).type.shape, (Shape{(1 << 28) + 1}));
  EXPECT_FALSE(bound.at(zeros).constant.has_value());
}

TEST(Specialize, ATinyProgramDoesNotFillMemory) {
  ProgramBuilder builder;
  const ValueId shape = builder.Constant(Tensor::IntVector({limits::kMaxFoldedElements}));
  constexpr std::int64_t kOperations = 100;
  for (std::int64_t i = 0; i < kOperations; ++i) builder.Output(builder.Call("fill", {{"shape", {shape}}}));
  const Program bound = Specialize(builder.program, {});
  std::int64_t folded = 0;
  for (const Value& value : bound.values) folded += value.constant ? value.constant->count() : 0;
  EXPECT_LE(folded, limits::kFoldedElements + 100);
  EXPECT_EQ(std::ssize(bound.operations), kOperations - limits::kFoldedElements / limits::kMaxFoldedElements);
}

TEST(Specialize, LeavesCostlyWorkToTheRun) {
  ProgramBuilder builder;
  const ValueId x = builder.Constant(Ramp({1, 1, 1 << 16}));
  const ValueId longWeight = builder.Constant(Ramp({1, 1, 1 << 13}));
  const ValueId shortWeight = builder.Constant(Tensor::Floats({1, 1, 1}, {2}));
  const ValueId costly = builder.Call("conv", {{"x", {x}}, {"weight", {longWeight}}});
  const ValueId folded = builder.Call("conv", {{"x", {longWeight}}, {"weight", {shortWeight}}});
  const Program bound = Specialize(builder.program, {});
  EXPECT_EQ(bound.operations.size(), 1U);
  EXPECT_FALSE(bound.at(costly).constant.has_value());
  EXPECT_TRUE(bound.at(folded).constant.has_value());
}

TEST(Specialize, RefusesResultsBeyondTheLimits) {
  ProgramBuilder builder;
  const ValueId shape = builder.Constant(Tensor::IntVector({1 << 16, 1 << 16}));
  builder.Call("fill", {{"shape", {shape}}}, ProgramBuilder::AnyFloats(), "huge");
  EXPECT_EQ(MessageOf(builder.program, {}),
            "fill 'huge': tensor shape [65536, 65536] has more than 2147483648 elements");
}

}  // namespace
}  // namespace ulmora::engine::program
