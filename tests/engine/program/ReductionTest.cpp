#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// Of all elements, 1, 2, 3, 4.
float OfAll(std::string_view key) {
  return FloatsOf(EvaluateOne(key, {{"x", Ramp({2, 2}, 1.0F)}})).at(0);
}

TEST(Reduction, FunctionsOfOneToFour) {
  EXPECT_FLOAT_EQ(OfAll("reduce_sum"), 10);
  EXPECT_FLOAT_EQ(OfAll("reduce_mean"), 2.5F);
  EXPECT_FLOAT_EQ(OfAll("reduce_max"), 4);
  EXPECT_FLOAT_EQ(OfAll("reduce_min"), 1);
  EXPECT_FLOAT_EQ(OfAll("reduce_prod"), 24);
  EXPECT_FLOAT_EQ(OfAll("reduce_sum_square"), 30);
  EXPECT_FLOAT_EQ(OfAll("reduce_l2_norm"), std::sqrt(30.0F));
  EXPECT_FLOAT_EQ(OfAll("reduce_log_sum"), std::log(10.0F));
  EXPECT_FLOAT_EQ(OfAll("reduce_log_sum_exp"), 4.4401897F);
  EXPECT_FLOAT_EQ(FloatsOf(EvaluateOne("reduce_l1_norm", {{"x", Tensor::Floats({3}, {-1, 2, -4})}})).at(0), 7);
}

TEST(Reduction, AxesGoOrStayAsOne) {
  const Tensor x = Ramp({2, 3, 2});
  const Tensor dropped = EvaluateOne("reduce_sum", {{"x", x}, {"axes", {-2}}});
  EXPECT_EQ(dropped.shape(), (Shape{2, 2}));
  EXPECT_THAT(FloatsOf(dropped), ElementsAre(6, 9, 24, 27));
  const Tensor kept = EvaluateOne("reduce_sum", {{"x", x}, {"axes", {2, 0}}, {"keep_dims", true}});
  EXPECT_EQ(kept.shape(), (Shape{1, 3, 1}));
  EXPECT_THAT(FloatsOf(kept), ElementsAre(14, 22, 30));
}

TEST(Reduction, WithoutAxesEverythingGoes) {
  EXPECT_EQ(InferShape("reduce_max", {{"x", FloatType({2, 3})}}), Shape{});
  EXPECT_EQ(InferShape("reduce_max", {{"x", FloatType({2, 3})}, {"keep_dims", true}}), (Shape{1, 1}));
}

TEST(Reduction, LogSumExpStandsLargeAndInfiniteValues) {
  const auto of = [](std::vector<float> values) {
    const Shape shape = {static_cast<std::int64_t>(values.size())};
    return FloatsOf(EvaluateOne("reduce_log_sum_exp", {{"x", Tensor::Floats(shape, std::move(values))}})).at(0);
  };
  EXPECT_FLOAT_EQ(of({1000, 1000}), 1000.6931F);
  EXPECT_EQ(of({-kInfinity, -kInfinity}), -kInfinity);
  EXPECT_EQ(of({kInfinity, 0}), kInfinity);
}

TEST(Reduction, IntegersStayIntegersAndSaturate) {
  const Tensor x = Tensor::IntVector({INT32_MAX, INT32_MAX, 5});
  EXPECT_THAT(IntsOf(EvaluateOne("reduce_sum", {{"x", x}})), ElementsAre(INT32_MAX));
  EXPECT_THAT(IntsOf(EvaluateOne("reduce_prod", {{"x", x}})), ElementsAre(INT32_MAX));
  EXPECT_THAT(IntsOf(EvaluateOne("reduce_min", {{"x", x}})), ElementsAre(5));
  EXPECT_THAT(IntsOf(EvaluateOne("reduce_mean", {{"x", Tensor::IntVector({-1, -2})}})), ElementsAre(-1));
}

TEST(Reduction, NanIsNotLost) {
  const Tensor x = Tensor::Floats({3}, {1, kNan, 2});
  EXPECT_TRUE(std::isnan(FloatsOf(EvaluateOne("reduce_max", {{"x", x}})).at(0)));
  EXPECT_TRUE(std::isnan(FloatsOf(EvaluateOne("reduce_min", {{"x", x}})).at(0)));
  EXPECT_THAT(IntsOf(EvaluateOne("reduce_argmax", {{"x", x}})), ElementsAre(1));
}

TEST(Reduction, PositionsOfExtremesAreThoseOfTheFirst) {
  const Tensor x = Tensor::Floats({2, 3}, {1, 5, 5, 0, -2, -2});
  EXPECT_THAT(IntsOf(EvaluateOne("reduce_argmax", {{"x", x}})), ElementsAre(1, 0));
  EXPECT_THAT(IntsOf(EvaluateOne("reduce_argmin", {{"x", x}})), ElementsAre(0, 1));
  const Tensor columns = EvaluateOne("reduce_argmax", {{"x", x}, {"axis", 0}, {"keep_dims", true}});
  EXPECT_EQ(columns.shape(), (Shape{1, 3}));
  EXPECT_THAT(IntsOf(columns), ElementsAre(0, 0, 0));
  EXPECT_EQ(InferOp("reduce_argmax", {{"x", x}, {"output_dtype", "uint16"}}, 7).at(0).element, ElementType::UInt16);
}

TEST(Reduction, RefusesAxesThatAreNotThere) {
  const TensorType x = FloatType({2, 3});
  EXPECT_EQ(RefusalOf("reduce_sum", {{"x", x}, {"axes", {2}}}),
            "reduce_sum 'op': axis 2 is outside a tensor of rank 2");
  EXPECT_EQ(RefusalOf("reduce_sum", {{"x", x}, {"axes", {1, -1}}}), "reduce_sum 'op': axis -1 is listed twice");
  EXPECT_THAT(RefusalOf("reduce_argmax", {{"x", x}, {"axis", -3}}), HasSubstr("axis -3 is outside"));
  EXPECT_THAT(RefusalOf("reduce_argmax", {{"x", FloatType({2, 0})}}), HasSubstr("no elements along the axis"));
  EXPECT_THAT(RefusalOf("reduce_argmax", {{"x", x}, {"output_dtype", "int8"}}), HasSubstr("expected int32 or uint16"));
  EXPECT_THAT(RefusalOf("reduce_mean", {{"x", Tensor::Bool(true)}}), HasSubstr("expected numbers"));
}

}  // namespace
}  // namespace ulmora::engine::program
