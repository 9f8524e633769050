#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

Tensor Row(std::vector<float> values) {
  Shape shape = {static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(std::move(shape), std::move(values));
}

Tensor Cast(const TestOperand& x, const char* dtype) {
  return EvaluateOne("cast", {{"x", x}, {"dtype", dtype}});
}

TEST(Cast, FloatToIntegerTruncatesAndClamps) {
  EXPECT_THAT(IntsOf(Cast(Row({2.9F, -2.9F, 0.0F}), "int32")), ElementsAre(2, -2, 0));
  EXPECT_THAT(IntsOf(Cast(Row({3e9F, -kInf, kInf, kNan}), "int32")), ElementsAre(INT32_MAX, INT32_MIN, INT32_MAX, 0));
  EXPECT_THAT(IntsOf(Cast(Row({300.0F, -1.0F}), "uint8")), ElementsAre(255, 0));
  EXPECT_THAT(IntsOf(Cast(Row({300.0F, -300.0F}), "int8")), ElementsAre(127, -128));
}

TEST(Cast, IntegerToIntegerKeepsTheLowBits) {
  EXPECT_THAT(IntsOf(Cast({-1, 65536, 7}, "uint16")), ElementsAre(65535, 0, 7));
  EXPECT_THAT(IntsOf(Cast({200, -129}, "int8")), ElementsAre(-56, 127));
  EXPECT_THAT(IntsOf(Cast(Tensor::Ints({1}, {65535}, ElementType::UInt16), "int32")), ElementsAre(65535));
}

TEST(Cast, BoolsAndNumbers) {
  EXPECT_THAT(BoolsOf(Cast(Row({0.0F, -0.5F, kNan}), "bool")), ElementsAre(false, true, true));
  EXPECT_THAT(BoolsOf(Cast({0, -4}, "bool")), ElementsAre(false, true));
  EXPECT_THAT(FloatsOf(Cast(Tensor::Bools({2}, {0, 9}), "fp16")), ElementsAre(0, 1));
  EXPECT_THAT(IntsOf(Cast(Tensor::Bools({2}, {0, 9}), "int32")), ElementsAre(0, 1));
  EXPECT_THAT(FloatsOf(Cast({3, -4}, "fp32")), ElementsAre(3, -4));
}

TEST(Cast, FloatToFloatSharesTheElements) {
  const Tensor x = Row({1.00001F});
  const Tensor half = Cast(x, "fp16");
  EXPECT_EQ(half.element(), ElementType::Float16);
  EXPECT_EQ(half.identity(), x.identity());
}

TEST(Cast, RefusesUnknownTypes) {
  EXPECT_EQ(RefusalOf("cast", {{"x", FloatType({1})}, {"dtype", "complex"}}),
            "cast 'op': dtype is 'complex', expected fp16, fp32, int32, bool, int8, uint8, int16 or uint16");
  EXPECT_EQ(RefusalOf("cast", {{"x", "text"}, {"dtype", "fp32"}}),
            "cast 'op': x is of type string, expected numbers or bools");
  EXPECT_EQ(RefusalOf("cast", {{"x", FloatType({1})}, {"dtype", 3}}),
            "cast 'op': parameter 'dtype' is of type int32, expected string");
}

TEST(Identity, ReturnsItsOperand) {
  const Tensor x = Ramp({2, 2});
  EXPECT_EQ(EvaluateOne("identity", {{"x", x}}).identity(), x.identity());
}

TEST(ShapeOp, NeedsOnlyTheType) {
  EXPECT_THAT(IntsOf(EvaluateOne("shape", {{"x", FloatType({1, 3, 40, 50})}})), ElementsAre(1, 3, 40, 50));
  EXPECT_EQ(EvaluateOne("shape", {{"x", FloatType({})}}).shape(), Shape{0});
}

TEST(Select, ChoosesAndBroadcasts) {
  const Tensor cond = Tensor::Bools({2, 1}, {1, 0});
  const Tensor y = EvaluateOne("select", {{"cond", cond}, {"a", Row({1, 2})}, {"b", kNan}});
  EXPECT_EQ(y.shape(), (Shape{2, 2}));
  EXPECT_EQ(y.floats()[0], 1.0F);
  EXPECT_EQ(y.floats()[1], 2.0F);
  EXPECT_NE(y.floats()[2], y.floats()[2]);
  EXPECT_THAT(IntsOf(EvaluateOne("select", {{"cond", false}, {"a", {1, 2}}, {"b", {3, 4}}})), ElementsAre(3, 4));
  EXPECT_THAT(BoolsOf(EvaluateOne("select", {{"cond", true}, {"a", true}, {"b", false}})), ElementsAre(true));
  EXPECT_EQ(RefusalOf("select", {{"cond", 1}, {"a", 1.0F}, {"b", 2.0F}}),
            "select 'op': cond is of type int32, expected bools");
  EXPECT_EQ(RefusalOf("select", {{"cond", true}, {"a", FloatType({2})}, {"b", FloatType({3})}}),
            "select 'op': shapes [] and [2] and [3] do not broadcast");
  EXPECT_EQ(RefusalOf("select", {{"cond", true}, {"a", 1.0F}, {"b", 2}}),
            "select 'op': a is of type float32, but b of type int32");
}

TEST(Fill, RepeatsItsValue) {
  EXPECT_THAT(FloatsOf(EvaluateOne("fill", {{"shape", {2}}})), ElementsAre(0, 0));
  const Tensor ints = EvaluateOne("fill", {{"shape", {1, 2}}, {"value", 7}});
  EXPECT_EQ(ints.shape(), (Shape{1, 2}));
  EXPECT_THAT(IntsOf(ints), ElementsAre(7, 7));
  EXPECT_THAT(BoolsOf(EvaluateOne("fill_like", {{"ref_tensor", IntType({3})}, {"value", true}})),
              ElementsAre(true, true, true));
  EXPECT_EQ(RefusalOf("fill", {{"shape", {2, -1}}}), "fill 'op': shape is [2, ?], expected no negative entries");
  EXPECT_EQ(RefusalOf("fill", {{"shape", IntType({2})}}), "fill 'op': parameter 'shape' must be a constant");
  EXPECT_EQ(RefusalOf("fill", {{"shape", {2}}, {"value", {1, 2}}}),
            "fill 'op': value is int32 [2], expected a single number or bool");
}

TEST(Range, CountsUpAndDownWithoutItsEnd) {
  const auto ints = [](int start, int end, int step) {
    return IntsOf(EvaluateOne("range_1d", {{"start", start}, {"end", end}, {"step", step}}));
  };
  EXPECT_THAT(ints(0, 5, 2), ElementsAre(0, 2, 4));
  EXPECT_THAT(ints(0, 4, 2), ElementsAre(0, 2));
  EXPECT_THAT(ints(3, 0, -1), ElementsAre(3, 2, 1));
  EXPECT_THAT(ints(3, 0, 1), ElementsAre());
  EXPECT_THAT(FloatsOf(EvaluateOne("range_1d", {{"start", 0.5F}, {"end", 2.0F}, {"step", 0.5F}})),
              ElementsAre(0.5F, 1.0F, 1.5F));
}

TEST(Range, RefusesWhatNeverEnds) {
  EXPECT_EQ(RefusalOf("range_1d", {{"start", 0}, {"end", 5}, {"step", 0}}),
            "range_1d 'op': no range from 0.000000 to 5.000000 by 0.000000");
  EXPECT_EQ(RefusalOf("range_1d", {{"start", 0.0F}, {"end", 1.0F}, {"step", 1e-30F}}),
            "range_1d 'op': the range has too many elements");
  EXPECT_EQ(RefusalOf("range_1d", {{"start", 0.0F}, {"end", kInf}, {"step", 1.0F}}),
            "range_1d 'op': no range from 0.000000 to inf by 1.000000");
  EXPECT_EQ(RefusalOf("range_1d", {{"start", 0}, {"end", 1.0F}, {"step", 1}}),
            "range_1d 'op': start is of type int32, but end of type float32");
}

}  // namespace
}  // namespace ulmora::engine::program
