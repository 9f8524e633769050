#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::FloatNear;
using testing::HasSubstr;
using testing::Pointwise;

Tensor Row(std::vector<float> values) {
  Shape shape = {static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(std::move(shape), std::move(values));
}

float OfOne(std::string_view key, float x) {
  return FloatsOf(EvaluateOne(key, {{"x", Row({x})}})).at(0);
}

TEST(ElementwiseUnary, FunctionsAtAPoint) {
  EXPECT_FLOAT_EQ(OfOne("exp", 1.0F), 2.7182818F);
  EXPECT_FLOAT_EQ(OfOne("exp2", -1.5F), 0.35355339F);
  EXPECT_FLOAT_EQ(OfOne("sqrt", 2.0F), 1.4142136F);
  EXPECT_FLOAT_EQ(OfOne("sin", 0.5F), 0.47942554F);
  EXPECT_FLOAT_EQ(OfOne("cos", 0.5F), 0.87758256F);
  EXPECT_FLOAT_EQ(OfOne("tan", 0.5F), 0.54630249F);
  EXPECT_FLOAT_EQ(OfOne("asin", 0.5F), 0.52359878F);
  EXPECT_FLOAT_EQ(OfOne("acos", 0.5F), 1.0471976F);
  EXPECT_FLOAT_EQ(OfOne("atan", 0.5F), 0.46364761F);
  EXPECT_FLOAT_EQ(OfOne("atanh", 0.5F), 0.54930614F);
  EXPECT_FLOAT_EQ(OfOne("asinh", 0.5F), 0.48121183F);
  EXPECT_FLOAT_EQ(OfOne("acosh", 1.5F), 0.96242365F);
  EXPECT_FLOAT_EQ(OfOne("sinh", 0.5F), 0.52109531F);
  EXPECT_FLOAT_EQ(OfOne("cosh", 0.5F), 1.1276260F);
  EXPECT_FLOAT_EQ(OfOne("erf", 0.5F), 0.52049988F);
}

TEST(ElementwiseUnary, RoundsHalvesToEvenAndDirectedOnes) {
  const Tensor x = Row({-2.5F, -1.5F, -0.5F, 0.5F, 1.5F, 2.5F, 2.6F});
  EXPECT_THAT(FloatsOf(EvaluateOne("round", {{"x", x}})), ElementsAre(-2, -2, 0, 0, 2, 2, 3));
  EXPECT_THAT(FloatsOf(EvaluateOne("floor", {{"x", x}})), ElementsAre(-3, -2, -1, 0, 1, 2, 2));
  EXPECT_THAT(FloatsOf(EvaluateOne("ceil", {{"x", x}})), ElementsAre(-2, -1, 0, 1, 2, 3, 3));
}

TEST(ElementwiseUnary, SignOfZeroIsZero) {
  EXPECT_THAT(FloatsOf(EvaluateOne("sign", {{"x", Row({-3.0F, 0.0F, 0.25F})}})), ElementsAre(-1, 0, 1));
  EXPECT_TRUE(std::isnan(OfOne("sign", std::numeric_limits<float>::quiet_NaN())));
}

TEST(ElementwiseUnary, IntegersStayIntegersAndSaturate) {
  const Tensor x = Tensor::IntVector({-3, 0, 5, INT32_MIN, INT32_MAX});
  EXPECT_THAT(IntsOf(EvaluateOne("abs", {{"x", x}})), ElementsAre(3, 0, 5, INT32_MAX, INT32_MAX));
  EXPECT_THAT(IntsOf(EvaluateOne("sign", {{"x", x}})), ElementsAre(-1, 0, 1, -1, 1));
  EXPECT_THAT(IntsOf(EvaluateOne("square", {{"x", x}})), ElementsAre(9, 0, 25, INT32_MAX, INT32_MAX));
  EXPECT_THAT(IntsOf(EvaluateOne("exp2", {{"x", x}})), ElementsAre(0, 1, 32, 0, INT32_MAX));
  const Tensor bytes = Tensor::Ints({1}, {20}, ElementType::Int8);
  EXPECT_THAT(IntsOf(EvaluateOne("square", {{"x", bytes}})), ElementsAre(127));
}

TEST(ElementwiseUnary, EpsilonsHaveTheirDefaults) {
  EXPECT_FLOAT_EQ(OfOne("log", 0.0F), std::log(1.4012985e-45));
  EXPECT_FLOAT_EQ(OfOne("inverse", 0.0F), 1e4F);
  EXPECT_FLOAT_EQ(OfOne("rsqrt", 0.0F), 1e6F);
  EXPECT_FLOAT_EQ(FloatsOf(EvaluateOne("log", {{"x", Row({0.5F})}, {"epsilon", 0.5F}})).at(0), 0.0F);
  EXPECT_FLOAT_EQ(FloatsOf(EvaluateOne("inverse", {{"x", Row({0.5F})}, {"epsilon", 1.5F}})).at(0), 0.5F);
  EXPECT_FLOAT_EQ(FloatsOf(EvaluateOne("rsqrt", {{"x", Row({3.0F})}, {"epsilon", 1.0F}})).at(0), 0.5F);
}

TEST(ElementwiseUnary, ClipAndThreshold) {
  const Tensor x = Row({-2.0F, 0.5F, 7.0F});
  EXPECT_THAT(FloatsOf(EvaluateOne("clip", {{"x", x}, {"alpha", 0.0F}, {"beta", 6.0F}})), ElementsAre(0, 0.5F, 6));
  EXPECT_THAT(FloatsOf(EvaluateOne("threshold", {{"x", x}, {"alpha", 1.0F}})), ElementsAre(1, 1, 7));
}

TEST(ElementwiseUnary, ClipWithCrossingBoundsIsAnOldHabit) {
  const TestOperands crossing = {{"x", Row({0.0F})}, {"alpha", 2.0F}, {"beta", 1.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("clip", crossing, 6)), ElementsAre(1));
  EXPECT_EQ(RefusalOf("clip", crossing, 7), "clip 'op': alpha is 2.000000, expected less than beta = 1.000000");
}

TEST(ElementwiseUnary, LogicalNot) {
  EXPECT_THAT(BoolsOf(EvaluateOne("logical_not", {{"x", Tensor::Bools({3}, {0, 1, 7})}})),
              ElementsAre(true, false, false));
}

TEST(ElementwiseUnary, ResultsKeepTheElementType) {
  const Tensor half = Tensor::Floats({1}, {4.0F}, ElementType::Float16);
  EXPECT_EQ(EvaluateOne("sqrt", {{"x", half}}).element(), ElementType::Float16);
}

TEST(ElementwiseUnary, RefusesOtherKinds) {
  EXPECT_EQ(RefusalOf("exp", {{"x", IntType({2})}}), "exp 'op': x is of type int32, expected floats");
  EXPECT_EQ(RefusalOf("abs", {{"x", Tensor::Bool(true)}}), "abs 'op': x is of type bool, expected numbers");
  EXPECT_EQ(RefusalOf("logical_not", {{"x", FloatType({2})}}),
            "logical_not 'op': x is of type float32, expected bools");
  EXPECT_EQ(RefusalOf("sqrt", {}), "sqrt 'op': parameter 'x' is missing");
  EXPECT_THAT(RefusalOf("threshold", {{"x", FloatType({2})}}), HasSubstr("parameter 'alpha' is missing"));
  EXPECT_THAT(RefusalOf("threshold", {{"x", FloatType({2})}, {"alpha", "high"}}), HasSubstr("expected a number"));
}

}  // namespace
}  // namespace ulmora::engine::program
