#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::FloatNear;
using testing::HasSubstr;
using testing::Pointwise;

Tensor Vector(std::vector<float> values) {
  const Shape shape = {static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(shape, std::move(values));
}

TEST(Normalization, BatchNormUsesTheGivenStatistics) {
  TestOperands operands = {
      {"x", Ramp({1, 2, 2})}, {"mean", Vector({1, 2})}, {"variance", Vector({4, 0.25F})}, {"epsilon", 0.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("batch_norm", operands)), ElementsAre(-0.5F, 0, 0, 2));
  operands.insert({"gamma", Vector({2, 3})});
  operands.insert({"beta", Vector({10, 20})});
  EXPECT_THAT(FloatsOf(EvaluateOne("batch_norm", operands)), ElementsAre(9, 10, 20, 26));
}

TEST(Normalization, EpsilonsHaveTheirDefaults) {
  const Tensor one = Tensor::Floats({1, 1, 1}, {1});
  const TestOperands operands = {{"x", one}, {"mean", Vector({0})}, {"variance", Vector({0})}};
  EXPECT_FLOAT_EQ(FloatsOf(EvaluateOne("batch_norm", operands)).at(0), 1.0F / std::sqrt(1e-5F));
  const Tensor tiny = Tensor::Floats({1, 1, 2}, {1e-3F, -1e-3F});
  EXPECT_FLOAT_EQ(FloatsOf(EvaluateOne("instance_norm", {{"x", tiny}})).at(0), 1e-3F / std::sqrt(1.1e-5F));
  EXPECT_FLOAT_EQ(FloatsOf(EvaluateOne("layer_norm", {{"x", tiny}})).at(0), 1e-3F / std::sqrt(1.1e-5F));
  EXPECT_FLOAT_EQ(FloatsOf(EvaluateOne("l2_norm", {{"x", tiny}})).at(0), 1e-3F / std::sqrt(3e-6F));
}

TEST(Normalization, InstanceNormTakesEachChannelOfEachImage) {
  TestOperands operands = {{"x", Tensor::Floats({1, 2, 1, 2}, {1, 3, 10, 30})}, {"epsilon", 0.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("instance_norm", operands)), ElementsAre(-1, 1, -1, 1));
  operands.insert({"gamma", Vector({1, 5})});
  operands.insert({"beta", Vector({0, 7})});
  EXPECT_THAT(FloatsOf(EvaluateOne("instance_norm", operands)), ElementsAre(-1, 1, 2, 12));
}

TEST(Normalization, LayerNormOverTheLastDimension) {
  const TestOperands operands = {{"x", Tensor::Floats({2, 2}, {1, 3, 0, 20})},
                                 {"axes", {-1}},
                                 {"gamma", Vector({2, 4})},
                                 {"beta", Vector({1, 0})},
                                 {"epsilon", 0.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("layer_norm", operands)), ElementsAre(-1, 4, -1, 4));
}

TEST(Normalization, LayerNormOverChannelsBesideSpace) {
  const TestOperands operands = {
      {"x", Tensor::Floats({1, 2, 2}, {1, 5, 3, 25})}, {"axes", {1}}, {"gamma", Vector({1, 10})}, {"epsilon", 0.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("layer_norm", operands)), ElementsAre(-1, -1, 10, 10));
}

TEST(Normalization, LayerNormParametersFollowTheOrderOfTheAxes) {
  // Axes [2, 1] of [1, 2, 3]: gamma is [3, 2].
  const TestOperands operands = {{"x", Tensor::Floats({1, 2, 3}, {-1, 1, -1, 1, -1, 1})},
                                 {"axes", {2, 1}},
                                 {"gamma", Ramp({3, 2})},
                                 {"epsilon", 0.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("layer_norm", operands)),
              Pointwise(FloatNear(1e-6F), {-0.0F, 2.0F, -4.0F, 1.0F, -3.0F, 5.0F}));
}

TEST(Normalization, LayerNormWithoutAxesTakesAll) {
  const TestOperands operands = {{"x", Tensor::Floats({2, 2}, {1, 1, 3, 3})}, {"epsilon", 0.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("layer_norm", operands)), ElementsAre(-1, -1, 1, 1));
}

TEST(Normalization, L2NormDividesByTheLengthOverThreeDimensions) {
  const TestOperands operands = {{"x", Tensor::Floats({2, 1, 2, 1}, {3, 4, 0, 2})}, {"epsilon", 0.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("l2_norm", operands)), Pointwise(FloatNear(1e-6F), {0.6F, 0.8F, 0.0F, 1.0F}));
}

TEST(Normalization, LocalResponseNormSumsOverNeighbouringChannels) {
  // Window of 3 around each channel: sums of squares 5, 14, 29, 25.
  const TestOperands operands = {
      {"x", Ramp({1, 4, 1}, 1.0F)}, {"size", 3}, {"alpha", 3.0F}, {"beta", 1.0F}, {"k", 1.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("local_response_norm", operands)),
              Pointwise(FloatNear(1e-6F), {1.0F / 6, 2.0F / 15, 3.0F / 30, 4.0F / 26}));
}

TEST(Normalization, EvenResponseWindowsAreLongerBefore) {
  // Window of 2: the channel and the one before. Sums of squares 1, 5, 13.
  const TestOperands operands = {{"x", Ramp({1, 3, 1}, 1.0F)}, {"size", 2}, {"alpha", 2.0F}, {"beta", 1.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("local_response_norm", operands)),
              Pointwise(FloatNear(1e-6F), {1.0F / 2, 2.0F / 6, 3.0F / 14}));
}

TEST(Normalization, RefusesParametersOfOtherSizes) {
  const TensorType x = FloatType({1, 2, 4, 4});
  const Tensor two = Vector({0, 0});
  EXPECT_EQ(RefusalOf("batch_norm", {{"x", x}, {"mean", two}, {"variance", Vector({1})}}),
            "batch_norm 'op': variance has shape [1], expected [2]");
  EXPECT_THAT(RefusalOf("batch_norm", {{"x", FloatType({1, 2})}, {"mean", two}, {"variance", two}}),
              HasSubstr("expected rank 3 to 5"));
  EXPECT_EQ(RefusalOf("instance_norm", {{"x", x}, {"gamma", Vector({1, 2, 3})}}),
            "instance_norm 'op': gamma has shape [3], expected [2]");
  EXPECT_EQ(RefusalOf("layer_norm", {{"x", x}, {"axes", {2, 3}}, {"beta", Vector({1, 2, 3, 4})}}),
            "layer_norm 'op': beta has shape [4], expected [4, 4]");
  EXPECT_THAT(RefusalOf("layer_norm", {{"x", x}, {"axes", {3, -1}}}), HasSubstr("axis -1 is listed twice"));
  EXPECT_THAT(RefusalOf("layer_norm", {{"x", x}, {"axes", Tensor::IntVector({})}}), HasSubstr("axes is empty"));
  EXPECT_THAT(RefusalOf("l2_norm", {{"x", FloatType({2, 2})}}), HasSubstr("expected rank 3 or more"));
  EXPECT_EQ(RefusalOf("local_response_norm", {{"x", x}, {"size", 0}}),
            "local_response_norm 'op': size is 0, expected at least 1");
}

}  // namespace
}  // namespace ulmora::engine::program
