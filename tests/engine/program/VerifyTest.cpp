#include "engine/Error.h"
#include "engine/program/Verify.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/ProgramTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

std::string FaultOf(const Program& program) {
  try {
    Verify(program);
    VerifySpecialized(program);
  } catch (const Error& error) {
    return error.what();
  }
  return "none";
}

/// y = relu(x + c), the relu fused.
struct Sample : ProgramBuilder {
  ValueId x = Input("x", {1, 2, 4, 4});
  ValueId c = Constant(Tensor::Floats({2, 1, 1}, {1, 2}));
  ValueId sum = Call("add", {{"x", {x}}, {"y", {c}}}, FloatType({1, 2, 4, 4}), "sum");

  Sample() {
    program.operations.back().fused.push_back({FindOp("relu"), {{kPrevious}}});
    Output(sum);
  }
  Operation& add() { return program.operations.front(); }
};

TEST(Verify, AcceptsWhatIsWellFormed) {
  EXPECT_EQ(FaultOf(Sample().program), "none");
}

TEST(Verify, AcceptsValuesThatNothingDefinesOrUses) {
  Sample sample;
  sample.program.AddValue({"orphan", FloatType({kUnknownDim}), {}});
  EXPECT_EQ(FaultOf(sample.program), "none");
}

TEST(Verify, RefusesASecondDefinition) {
  Sample twice;
  twice.program.operations.push_back(twice.program.operations.front());
  EXPECT_EQ(FaultOf(twice.program), "add 'sum': value 'sum' is defined twice");

  Sample input;
  input.program.inputs.push_back(input.x);
  EXPECT_EQ(FaultOf(input.program), "the program's inputs: value 'x' is defined twice");

  Sample constant;
  constant.add().results = {constant.c};
  EXPECT_THAT(FaultOf(constant.program), testing::EndsWith("is defined twice"));
}

TEST(Verify, RefusesUseBeforeDefinition) {
  Sample order;
  order.Call("relu", {{"x", {order.sum}}}, FloatType({1, 2, 4, 4}), "late");
  std::swap(order.program.operations[0], order.program.operations[1]);
  EXPECT_EQ(FaultOf(order.program), "relu 'late': value 'sum' is used before it is defined");

  Sample itself;
  itself.add().arguments[1] = {itself.sum};
  EXPECT_EQ(FaultOf(itself.program), "add 'sum': value 'sum' is used before it is defined");

  Sample output;
  output.Output(output.program.AddValue({"nowhere", FloatType({1}), {}}));
  EXPECT_EQ(FaultOf(output.program), "the program's outputs: value 'nowhere' is used before it is defined");
}

TEST(Verify, RefusesIdsOutOfRange) {
  Sample high;
  high.add().arguments[0] = {99};
  EXPECT_EQ(FaultOf(high.program), "add 'sum': there is no value 99");
  Sample flowing;
  flowing.add().arguments[0] = {kPrevious};
  EXPECT_EQ(FaultOf(flowing.program), "add 'sum': there is no value -1");
}

TEST(Verify, RefusesWrongOperands) {
  Sample missing;
  missing.add().arguments[1] = {};
  EXPECT_EQ(FaultOf(missing.program), "add 'sum': parameter 'y' is missing");
  Sample several;
  several.add().arguments[1] = {several.c, several.c};
  EXPECT_EQ(FaultOf(several.program), "add 'sum': parameter 'y' has 2 operands, expected 1");
  Sample misaligned;
  misaligned.add().arguments.pop_back();
  EXPECT_EQ(FaultOf(misaligned.program), "add 'sum' has 1 arguments, expected 2");
  Sample undefined;
  undefined.add().definition = nullptr;
  EXPECT_EQ(FaultOf(undefined.program), "operation 'sum' has no definition");
  Sample silent;
  silent.add().results.clear();
  EXPECT_EQ(FaultOf(silent.program), "add 'sum' has no results");
}

TEST(Verify, RefusesRunTimeValuesForConstants) {
  Sample sample;
  const ValueId low = sample.Input("low", {});
  sample.Call("threshold", {{"x", {sample.sum}}, {"alpha", {low}}}, FloatType({1, 2, 4, 4}), "t");
  EXPECT_EQ(FaultOf(sample.program), "threshold 't': parameter 'alpha' must be a constant");
}

TEST(Verify, RefusesStepsThatDoNotFlow) {
  Sample idle;
  idle.add().fused[0].arguments = {{idle.x}};
  EXPECT_EQ(FaultOf(idle.program), "add 'sum', fused relu: does not use the value before it");

  Sample larger;
  const ValueId wide = larger.Constant(Tensor::Floats({1, 1, 1, 1, 1}, {1}));
  larger.add().fused.push_back({FindOp("add"), {{kPrevious}, {wide}}});
  EXPECT_EQ(FaultOf(larger.program), "add 'sum', fused add: turns float32 [1, 2, 4, 4] into float32 [1, 1, 2, 4, 4]");
}

TEST(Verify, RefusesTypesThatAreNotThoseOfTheRules) {
  Sample shape;
  shape.program.at(shape.sum).type = FloatType({1, 2, 4, 5});
  EXPECT_EQ(FaultOf(shape.program),
            "add 'sum': result 'sum' is typed as float32 [1, 2, 4, 5], but is float32 [1, 2, 4, 4]");

  Sample open;
  open.program.at(open.sum).type = FloatType({1, 2, 4, kUnknownDim});
  EXPECT_THAT(FaultOf(open.program), testing::HasSubstr("is not fully known"));

  Sample half;
  half.program.at(half.sum).type.element = ElementType::Float16;
  EXPECT_EQ(FaultOf(half.program), "none");

  Sample constant;
  constant.program.at(constant.c).type.shape = {2};
  EXPECT_THAT(FaultOf(constant.program), testing::HasSubstr("is float32 [2, 1, 1], but typed as float32 [2]"));
}

}  // namespace
}  // namespace ulmora::engine::program
