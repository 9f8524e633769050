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

std::vector<float> Apply(std::string_view key, std::vector<float> values, TestOperands more = {}) {
  Shape shape = {static_cast<std::int64_t>(values.size())};
  more.insert({"x", Tensor::Floats(std::move(shape), std::move(values))});
  return FloatsOf(EvaluateOne(key, more));
}

float One(std::string_view key, float x, const TestOperands& more = {}) {
  return Apply(key, {x}, more).at(0);
}

TEST(Activation, PiecewiseLinearOnes) {
  const std::vector<float> x = {-2.0F, -0.5F, 0.0F, 0.5F, 8.0F};
  EXPECT_THAT(Apply("relu", x), ElementsAre(0, 0, 0, 0.5F, 8));
  EXPECT_THAT(Apply("relu6", x), ElementsAre(0, 0, 0, 0.5F, 6));
  EXPECT_THAT(Apply("leaky_relu", x, {{"alpha", 0.25F}}), ElementsAre(-0.5F, -0.125F, 0, 0.5F, 8));
  EXPECT_THAT(Apply("thresholded_relu", x, {{"alpha", 0.5F}}), ElementsAre(0, 0, 0, 0.5F, 8));
  EXPECT_THAT(Apply("clamped_relu", x, {{"alpha", 0.5F}, {"beta", 3.0F}}), ElementsAre(-1, -0.25F, 0, 0.5F, 3));
  EXPECT_THAT(Apply("clamped_relu", {-4.0F}, {{"alpha", -2.0F}, {"beta", 3.0F}}), ElementsAre(3));
  EXPECT_THAT(Apply("linear_activation", x, {{"alpha", 2.0F}, {"beta", 1.0F}}), ElementsAre(-3, 0, 1, 2, 17));
  EXPECT_THAT(Apply("sigmoid_hard", x, {{"alpha", 0.25F}, {"beta", 0.5F}}), ElementsAre(0, 0.375F, 0.5F, 0.625F, 1));
}

TEST(Activation, SmoothOnesAtAPoint) {
  EXPECT_FLOAT_EQ(One("sigmoid", -1.0F), 0.26894142F);
  EXPECT_FLOAT_EQ(One("silu", -1.0F), -0.26894142F);
  EXPECT_FLOAT_EQ(One("tanh", 0.5F), 0.46211716F);
  EXPECT_FLOAT_EQ(One("softsign", -3.0F), -0.75F);
  EXPECT_FLOAT_EQ(One("softplus", 0.0F), 0.69314718F);
  EXPECT_FLOAT_EQ(One("elu", -1.0F, {{"alpha", 2.0F}}), -1.2642411F);
  EXPECT_FLOAT_EQ(One("elu", 3.0F, {{"alpha", 2.0F}}), 3.0F);
  EXPECT_FLOAT_EQ(One("scaled_tanh", 0.25F, {{"alpha", 3.0F}, {"beta", 2.0F}}), 1.3863515F);
}

TEST(Activation, SmoothOnesDoNotOverflow) {
  EXPECT_THAT(Apply("sigmoid", {-1e30F, 1e30F}), ElementsAre(0, 1));
  EXPECT_THAT(Apply("softplus", {-1e30F, 1e30F}), ElementsAre(0, 1e30F));
  EXPECT_THAT(Apply("silu", {-1e30F, 1e30F}), ElementsAre(0, 1e30F));
}

TEST(Activation, NanStaysNan) {
  EXPECT_TRUE(std::isnan(One("relu", kNan)));
  EXPECT_TRUE(std::isnan(One("relu6", kNan)));
  EXPECT_TRUE(std::isnan(One("sigmoid_hard", kNan, {{"alpha", 1.0F}, {"beta", 0.0F}})));
  EXPECT_TRUE(std::isnan(One("clip", kNan, {{"alpha", 0.0F}, {"beta", 1.0F}})));
}

TEST(Activation, ThreeKindsOfGelu) {
  EXPECT_FLOAT_EQ(One("gelu", 1.0F), 0.84134475F);
  EXPECT_FLOAT_EQ(One("gelu", -0.5F, {{"mode", "EXACT"}}), -0.15426877F);
  EXPECT_FLOAT_EQ(One("gelu", 1.0F, {{"mode", "TANH_APPROXIMATION"}}), 0.84119199F);
  EXPECT_FLOAT_EQ(One("gelu", 1.0F, {{"mode", "SIGMOID_APPROXIMATION"}}), 0.84579577F);
  EXPECT_EQ(RefusalOf("gelu", {{"x", FloatType({2})}, {"mode", "exact"}}),
            "gelu 'op': mode is 'exact', expected EXACT, TANH_APPROXIMATION or SIGMOID_APPROXIMATION");
}

TEST(Activation, ParametersPerChannel) {
  const Tensor x = Tensor::Floats({1, 2, 1, 2}, {-1, 1, -2, 2});
  const Tensor alpha = Tensor::Floats({2}, {0.5F, 2.0F});
  EXPECT_THAT(FloatsOf(EvaluateOne("prelu", {{"x", x}, {"alpha", alpha}})), ElementsAre(-0.5F, 1, -4, 2));
  const Tensor beta = Tensor::Floats({2}, {1.0F, 0.5F});
  const std::vector<float> soft =
      FloatsOf(EvaluateOne("softplus_parametric", {{"x", x}, {"alpha", alpha}, {"beta", beta}}));
  EXPECT_FLOAT_EQ(soft.at(1), 0.65663081F);  // 0.5 ln(1 + e)
  EXPECT_FLOAT_EQ(soft.at(3), 2.6265234F);   // 2 ln(1 + e)
}

TEST(Activation, RefusesParametersThatDoNotFitTheChannels) {
  const auto refusal = [](Shape x, const TestOperand& alpha) {
    return RefusalOf("prelu", {{"x", FloatType(std::move(x))}, {"alpha", alpha}});
  };
  EXPECT_EQ(refusal({1, 3, 4, 4}, FloatType({2})), "prelu 'op': alpha has shape [2], expected [3]");
  EXPECT_EQ(refusal({3, 4}, FloatType({4})), "prelu 'op': x has shape [3, 4], expected rank 3 or more");
  EXPECT_EQ(refusal({1, 3, 4}, IntType({3})), "prelu 'op': alpha is of type int32, expected floats");
  EXPECT_THAT(RefusalOf("softplus_parametric",
                        {{"x", FloatType({1, 2, 3})}, {"alpha", FloatType({2})}, {"beta", FloatType({3})}}),
              HasSubstr("beta has shape [3], expected [2]"));
  EXPECT_EQ(RefusalOf("leaky_relu", {{"x", FloatType({1})}, {"alpha", Ramp({2})}}),
            "leaky_relu 'op': parameter 'alpha' has shape [2], expected a single value");
}

TEST(Activation, SoftmaxAlongAnAxis) {
  const Tensor x = Tensor::Floats({2, 2}, {0.0F, std::log(3.0F), 1000.0F, 1000.0F});
  const std::vector<float> last = FloatsOf(EvaluateOne("softmax", {{"x", x}}));
  EXPECT_FLOAT_EQ(last.at(0), 0.25F);
  EXPECT_FLOAT_EQ(last.at(1), 0.75F);
  EXPECT_FLOAT_EQ(last.at(2), 0.5F);
  EXPECT_FLOAT_EQ(last.at(3), 0.5F);
  EXPECT_THAT(FloatsOf(EvaluateOne("softmax", {{"x", x}, {"axis", 0}})), ElementsAre(0, 0, 1, 1));
  EXPECT_EQ(RefusalOf("softmax", {{"x", x}, {"axis", 2}}), "softmax 'op': axis 2 is outside a tensor of rank 2");
  EXPECT_EQ(RefusalOf("softmax", {{"x", FloatType({})}}), "softmax 'op': axis -1 is outside a tensor of rank 0");
}

TEST(Activation, SoftmaxInTheMiddleSumsToOne) {
  const Tensor y = EvaluateOne("softmax", {{"x", Ramp({2, 3, 4}, -1.0F, 0.3F)}, {"axis", -2}});
  for (std::size_t outer = 0; outer < 2; ++outer) {
    for (std::size_t inner = 0; inner < 4; ++inner) {
      const auto at = [&](std::size_t i) { return y.floats()[(outer * 3 + i) * 4 + inner]; };
      EXPECT_NEAR(at(0) + at(1) + at(2), 1.0F, 1e-6F);
      EXPECT_NEAR(at(1) / at(0), std::exp(1.2F), 1e-5F);  // neighbours along the axis lie 4 * 0.3 apart
    }
  }
}

}  // namespace
}  // namespace ulmora::engine::program
