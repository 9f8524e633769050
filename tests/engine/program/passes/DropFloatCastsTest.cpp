#include "tests/engine/program/passes/PassTesting.h"

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr ElementType kHalf = ElementType::Float16;
constexpr ElementType kFloat = ElementType::Float32;

TEST(DropFloatCasts, ReadersReadTheOperandAndTheOutputIsComputedDirectly) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {1, 2, 2, 2});
  const ValueId half = builder.Cast(x, "fp16", kHalf);
  const ValueId again = builder.Cast(half, "fp16", kHalf);
  const ValueId relu = builder.Call("relu", {{"x", {again}}}, {kHalf, {}, false});
  const ValueId y = builder.Cast(relu, "fp32", kFloat);
  builder.Output(y);
  const Program program = Rewritten(builder.program, DropFloatCasts);
  EXPECT_THAT(KeysOf(program), ElementsAre("relu"));
  EXPECT_EQ(program.outputs.at(0), y);
  EXPECT_EQ(program.at(y).type.element, kFloat);
}

TEST(DropFloatCasts, OtherReadersOfWhatBecomesTheOutputFollow) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId relu = builder.Unary("relu", x);
  const ValueId square = builder.Unary("square", relu);
  builder.Output(builder.Cast(relu, "fp16", kHalf));
  builder.Output(square);
  EXPECT_THAT(KeysOf(Rewritten(builder.program, DropFloatCasts)), ElementsAre("relu", "square"));
}

TEST(DropFloatCasts, OutputThatIsAnInputKeepsItsTypeByACopy) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  builder.Output(builder.Cast(builder.Cast(x, "fp16", kHalf), "fp16", kHalf));
  const Program program = Rewritten(builder.program, DropFloatCasts);
  EXPECT_THAT(KeysOf(program), ElementsAre("cast"));
  EXPECT_EQ(program.at(program.outputs.at(0)).type.element, kHalf);
}

TEST(DropFloatCasts, OutputThatIsAConstantStaysOne) {
  NetworkBuilder builder;
  builder.Input("x", {4});
  builder.Output(builder.Cast(builder.Constant(Ramp({2})), "fp16", kHalf));
  const Program program = Rewritten(builder.program, DropFloatCasts);
  EXPECT_THAT(KeysOf(program), IsEmpty());
  EXPECT_TRUE(program.at(program.outputs.at(0)).constant.has_value());
}

TEST(DropFloatCasts, TwoOutputsOfOneValueAreOneComputedAndOneCopied) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId relu = builder.Unary("relu", x);
  builder.Output(builder.Cast(relu, "fp16", kHalf));
  builder.Output(builder.Cast(relu, "fp32", kFloat));
  builder.Output(relu);
  // relu is an output itself, so both casts stay.
  EXPECT_THAT(KeysOf(Rewritten(builder.program, DropFloatCasts)), ElementsAre("relu", "cast", "cast"));
  builder.program.outputs.pop_back();
  EXPECT_THAT(KeysOf(Rewritten(builder.program, DropFloatCasts)), ElementsAre("relu", "cast"));
}

TEST(DropFloatCasts, IdentitiesGoToo) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId same = builder.Unary("identity", x);
  builder.Output(builder.Unary("identity", builder.Unary("relu", same)));
  EXPECT_THAT(KeysOf(Rewritten(builder.program, DropFloatCasts)), ElementsAre("relu"));
}

TEST(DropFloatCasts, CastsThatRoundToIntegersStay) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  const ValueId whole = builder.Cast(x, "int32", ElementType::Int32);
  builder.Output(builder.Cast(whole, "fp32", kFloat));
  EXPECT_THAT(KeysOf(Rewritten(builder.program, DropFloatCasts)), ElementsAre("cast", "cast"));
}

TEST(DropFloatCasts, LongChainsTakeNoLongerThanTheyAre) {
  NetworkBuilder builder;
  const ValueId x = builder.Input("x", {4});
  ValueId value = x;
  for (int i = 0; i < 20000; ++i) value = builder.Cast(value, "fp16", kHalf);
  builder.Output(builder.Unary("relu", value));
  EXPECT_THAT(KeysOf(Rewritten(builder.program, DropFloatCasts)), ElementsAre("relu"));
}

}  // namespace
}  // namespace ulmora::engine::program
