#include "engine/Error.h"
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

}  // namespace
}  // namespace ulmora::engine::program
