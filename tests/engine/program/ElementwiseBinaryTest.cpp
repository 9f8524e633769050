#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

Tensor Row(std::vector<float> values) {
  Shape shape = {static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(std::move(shape), std::move(values));
}

std::vector<float> OfFloats(std::string_view key, std::vector<float> x, std::vector<float> y) {
  return FloatsOf(EvaluateOne(key, {{"x", Row(std::move(x))}, {"y", Row(std::move(y))}}));
}

std::vector<std::int32_t> OfInts(std::string_view key, std::vector<std::int32_t> x, std::vector<std::int32_t> y) {
  return IntsOf(EvaluateOne(key, {{"x", Tensor::IntVector(std::move(x))}, {"y", Tensor::IntVector(std::move(y))}}));
}

std::vector<bool> Compare(std::string_view key) {
  return BoolsOf(EvaluateOne(key, {{"x", Row({1, 2, 3})}, {"y", Row({2, 2, 2})}}));
}

TEST(ElementwiseBinary, FloatArithmetic) {
  const std::vector<float> x = {7.0F, -7.0F, 7.0F, -7.0F};
  const std::vector<float> y = {2.0F, 2.0F, -2.0F, -2.0F};
  EXPECT_THAT(OfFloats("add", x, y), ElementsAre(9, -5, 5, -9));
  EXPECT_THAT(OfFloats("sub", x, y), ElementsAre(5, -9, 9, -5));
  EXPECT_THAT(OfFloats("mul", x, y), ElementsAre(14, -14, -14, 14));
  EXPECT_THAT(OfFloats("real_div", x, y), ElementsAre(3.5F, -3.5F, -3.5F, 3.5F));
  EXPECT_THAT(OfFloats("floor_div", x, y), ElementsAre(3, -4, -4, 3));
  EXPECT_THAT(OfFloats("mod", x, y), ElementsAre(1, 1, -1, -1));
  EXPECT_THAT(OfFloats("maximum", x, y), ElementsAre(7, 2, 7, -2));
  EXPECT_THAT(OfFloats("minimum", x, y), ElementsAre(2, -7, -2, -7));
  EXPECT_THAT(OfFloats("pow", {2.0F, 9.0F, -2.0F}, {10.0F, 0.5F, 3.0F}), ElementsAre(1024, 3, -8));
  EXPECT_TRUE(std::isnan(OfFloats("pow", {-2.0F}, {0.5F}).at(0)));
}

TEST(ElementwiseBinary, NanOfEitherSideWins) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (const std::string_view key : {"maximum", "minimum"}) {
    EXPECT_TRUE(std::isnan(OfFloats(key, {nan}, {1.0F}).at(0))) << key;
    EXPECT_TRUE(std::isnan(OfFloats(key, {1.0F}, {nan}).at(0))) << key;
  }
}

TEST(ElementwiseBinary, IntegerArithmetic) {
  const std::vector<std::int32_t> x = {7, -7, 7, -7};
  const std::vector<std::int32_t> y = {2, 2, -2, -2};
  EXPECT_THAT(OfInts("real_div", x, y), ElementsAre(3, -3, -3, 3));
  EXPECT_THAT(OfInts("floor_div", x, y), ElementsAre(3, -4, -4, 3));
  EXPECT_THAT(OfInts("mod", x, y), ElementsAre(1, 1, -1, -1));
  EXPECT_THAT(OfInts("pow", {3, -2, 2, 5}, {4, 3, -1, 0}), ElementsAre(81, -8, 0, 1));
  EXPECT_THAT(OfInts("maximum", x, y), ElementsAre(7, 2, 7, -2));
}

TEST(ElementwiseBinary, HostileIntegersAreDefined) {
  EXPECT_THAT(OfInts("add", {INT32_MAX, INT32_MIN}, {1, -1}), ElementsAre(INT32_MAX, INT32_MIN));
  EXPECT_THAT(OfInts("mul", {INT32_MIN}, {INT32_MIN}), ElementsAre(INT32_MAX));
  EXPECT_THAT(OfInts("floor_div", {INT32_MIN, 5, -5}, {-1, 0, 0}), ElementsAre(INT32_MAX, 0, 0));
  EXPECT_THAT(OfInts("real_div", {INT32_MIN, 5}, {-1, 0}), ElementsAre(INT32_MAX, 0));
  EXPECT_THAT(OfInts("mod", {INT32_MIN, 5}, {-1, 0}), ElementsAre(0, 0));
  EXPECT_THAT(OfInts("pow", {INT32_MIN, 0, -1, -1}, {INT32_MAX, -1, INT32_MAX, INT32_MIN}),
              ElementsAre(INT32_MIN, 0, -1, 1));
  const Tensor small = Tensor::Ints({1}, {200}, ElementType::UInt8);
  EXPECT_THAT(IntsOf(EvaluateOne("add", {{"x", small}, {"y", small}})), ElementsAre(255));
}

TEST(ElementwiseBinary, BroadcastsWithRankPromotion) {
  const Tensor x = Ramp({2, 1, 2});
  const Tensor y = Tensor::Floats({3, 1}, {10, 20, 30});
  const Tensor sum = EvaluateOne("add", {{"x", x}, {"y", y}});
  EXPECT_EQ(sum.shape(), (Shape{2, 3, 2}));
  EXPECT_THAT(FloatsOf(sum), ElementsAre(10, 11, 20, 21, 30, 31, 12, 13, 22, 23, 32, 33));
  EXPECT_THAT(FloatsOf(EvaluateOne("sub", {{"x", 10.0F}, {"y", Row({1, 2})}})), ElementsAre(9, 8));
  EXPECT_EQ(EvaluateOne("mul", {{"x", 2.0F}, {"y", 3.0F}}).shape(), Shape{});
}

TEST(ElementwiseBinary, ChannelConstantsBroadcast) {
  EXPECT_EQ(InferShape("mul", {{"x", FloatType({1, 8, 4, 5})}, {"y", FloatType({8, 1, 1})}}), (Shape{1, 8, 4, 5}));
  EXPECT_EQ(InferShape("mul", {{"x", FloatType({1, 8, 1, 1})}, {"y", FloatType({1, 8, 4, 5})}}), (Shape{1, 8, 4, 5}));
}

TEST(ElementwiseBinary, Comparisons) {
  EXPECT_THAT(Compare("equal"), ElementsAre(false, true, false));
  EXPECT_THAT(Compare("not_equal"), ElementsAre(true, false, true));
  EXPECT_THAT(Compare("less"), ElementsAre(true, false, false));
  EXPECT_THAT(Compare("less_equal"), ElementsAre(true, true, false));
  EXPECT_THAT(Compare("greater"), ElementsAre(false, false, true));
  EXPECT_THAT(Compare("greater_equal"), ElementsAre(false, true, true));
  EXPECT_THAT(BoolsOf(EvaluateOne("less", {{"x", {1, INT32_MAX}}, {"y", {2, INT32_MAX - 1}}})),
              ElementsAre(true, false));
  EXPECT_THAT(BoolsOf(EvaluateOne("equal", {{"x", true}, {"y", true}})), ElementsAre(true));
}

TEST(ElementwiseBinary, LogicalFunctions) {
  const TestOperands operands = {{"x", Tensor::Bools({4}, {0, 0, 1, 2})}, {"y", Tensor::Bools({4}, {0, 1, 0, 1})}};
  EXPECT_THAT(BoolsOf(EvaluateOne("logical_and", operands)), ElementsAre(false, false, false, true));
  EXPECT_THAT(BoolsOf(EvaluateOne("logical_or", operands)), ElementsAre(false, true, true, true));
  EXPECT_THAT(BoolsOf(EvaluateOne("logical_xor", operands)), ElementsAre(false, true, true, false));
}

TEST(ElementwiseBinary, MixedFloatTypesGiveFloat32) {
  const TensorType half = {ElementType::Float16, {2}, true};
  EXPECT_EQ(InferOp("add", {{"x", half}, {"y", half}}).at(0).element, ElementType::Float16);
  EXPECT_EQ(InferOp("add", {{"x", half}, {"y", 1.0F}}).at(0).element, ElementType::Float32);
}

TEST(ElementwiseBinary, Refusals) {
  EXPECT_EQ(RefusalOf("add", {{"x", FloatType({2, 3})}, {"y", FloatType({2})}}),
            "add 'op': shapes [2, 3] and [2] do not broadcast");
  EXPECT_EQ(RefusalOf("mul", {{"x", FloatType({2})}, {"y", IntType({2})}}),
            "mul 'op': x is of type float32, but y of type int32");
  EXPECT_EQ(RefusalOf("add", {{"x", true}, {"y", true}}), "add 'op': x is of type bool, expected numbers");
  EXPECT_EQ(RefusalOf("equal", {{"x", "a"}, {"y", "a"}}), "equal 'op': x is of type string, expected numbers or bools");
  EXPECT_EQ(RefusalOf("logical_or", {{"x", 1}, {"y", true}}), "logical_or 'op': x is of type int32, expected bools");
}

}  // namespace
}  // namespace ulmora::engine::program
