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

Tensor Line(std::vector<float> values) {
  const Shape shape = {1, 1, static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(shape, std::move(values));
}

TEST(Pool, MaximumMeanAndRootOfSquaresOfEachWindow) {
  const TestOperands operands = {
      {"x", Ramp({1, 1, 4, 4})}, {"kernel_sizes", {2, 2}}, {"strides", {2, 2}}, {"pad_type", "valid"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("max_pool", operands)), ElementsAre(5, 7, 13, 15));
  EXPECT_THAT(FloatsOf(EvaluateOne("avg_pool", operands)), ElementsAre(2.5F, 4.5F, 10.5F, 12.5F));
  const TestOperands line = {
      {"x", Line({3, 4, 12, 5})}, {"kernel_sizes", {2}}, {"strides", {2}}, {"pad_type", "valid"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("l2_pool", line)), ElementsAre(5, 13));
}

TEST(Pool, StridesAreOneByDefaultAndEveryChannelIsItsOwn) {
  const TestOperands operands = {{"x", Ramp({2, 2, 3})}, {"kernel_sizes", {2}}, {"pad_type", "valid"}};
  const Tensor result = EvaluateOne("max_pool", operands);
  EXPECT_EQ(result.shape(), (Shape{2, 2, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(1, 2, 4, 5, 7, 8, 10, 11));
}

TEST(Pool, TakesVolumes) {
  const TestOperands operands = {{"x", Ramp({1, 1, 2, 2, 2})}, {"kernel_sizes", {2, 2, 2}}, {"pad_type", "valid"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("avg_pool", operands)), ElementsAre(3.5F));
}

TEST(Pool, PaddedZerosCountInTheMeanUnlessExcluded) {
  TestOperands operands = {{"x", Ramp({1, 1, 4, 4})},
                           {"kernel_sizes", {3, 3}},
                           {"strides", {2, 2}},
                           {"pad_type", "custom"},
                           {"pad", {1, 1, 1, 1}}};
  EXPECT_THAT(FloatsOf(EvaluateOne("avg_pool", operands)),
              Pointwise(FloatNear(1e-6F), {10.0F / 9, 24.0F / 9, 51.0F / 9, 10.0F}));
  operands.insert({"exclude_padding_from_average", true});
  EXPECT_THAT(FloatsOf(EvaluateOne("avg_pool", operands)), ElementsAre(2.5F, 4.0F, 8.5F, 10.0F));
}

TEST(Pool, PaddingNeverWinsTheMaximum) {
  const TestOperands operands = {
      {"x", Line({-3, -1, -2})}, {"kernel_sizes", {3}}, {"pad_type", "custom"}, {"pad", {1, 1}}};
  EXPECT_THAT(FloatsOf(EvaluateOne("max_pool", operands)), ElementsAre(-1, -1, -1));
}

TEST(Pool, NanWinsTheMaximum) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const TestOperands operands = {
      {"x", Line({nan, 1, 2, 3})}, {"kernel_sizes", {2}}, {"strides", {2}}, {"pad_type", "valid"}};
  const std::vector<float> result = FloatsOf(EvaluateOne("max_pool", operands));
  EXPECT_TRUE(std::isnan(result.at(0)));
  EXPECT_EQ(result.at(1), 3);
}

TEST(Pool, SamePutsTheOddElementOfPaddingLast) {
  TestOperands operands = {{"x", Line({0, 1, 2})}, {"kernel_sizes", {2}}, {"pad_type", "same"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("max_pool", operands)), ElementsAre(1, 2, 2));
  operands.insert_or_assign("pad_type", "same_lower");
  EXPECT_THAT(FloatsOf(EvaluateOne("max_pool", operands)), ElementsAre(0, 1, 2));
  // ceil(4 / 2) windows of three need one more element: [0..2] and [2..4].
  const TestOperands strided = {
      {"x", Line({0, 1, 2, 3})}, {"kernel_sizes", {3}}, {"strides", {2}}, {"pad_type", "same"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("avg_pool", strided)), Pointwise(FloatNear(1e-6F), {1.0F, 5.0F / 3}));
}

TEST(Pool, PadBesideAnotherTypeThanCustomIsIgnored) {
  const TestOperands operands = {{"x", Line({0, 1, 2})}, {"kernel_sizes", {2}}, {"pad_type", "valid"}, {"pad", {9, 9}}};
  EXPECT_EQ(InferShape("max_pool", operands), (Shape{1, 1, 2}));
}

TEST(Pool, CeilModeAddsAWindowForTheRest) {
  const TestOperands operands = {{"x", Line({0, 1, 2, 3, 4})},
                                 {"kernel_sizes", {2}},
                                 {"strides", {2}},
                                 {"pad_type", "valid"},
                                 {"ceil_mode", true}};
  EXPECT_THAT(FloatsOf(EvaluateOne("max_pool", operands)), ElementsAre(1, 3, 4));
  // The overhang beyond the data does not count in the mean.
  EXPECT_THAT(FloatsOf(EvaluateOne("avg_pool", operands)), ElementsAre(0.5F, 2.5F, 4.0F));
}

TEST(Pool, CeilModeCountsDeclaredPaddingButNotWhatLiesBeyond) {
  TestOperands operands = {{"x", Line({0, 1, 2, 3})}, {"kernel_sizes", {3}}, {"strides", {2}},
                           {"pad_type", "custom"},    {"pad", {1, 1}},       {"ceil_mode", true}};
  EXPECT_THAT(FloatsOf(EvaluateOne("avg_pool", operands)), Pointwise(FloatNear(1e-6F), {1.0F / 3, 2.0F, 1.5F}));
  operands.insert({"exclude_padding_from_average", true});
  EXPECT_THAT(FloatsOf(EvaluateOne("avg_pool", operands)), ElementsAre(0.5F, 2.0F, 3.0F));
}

TEST(Pool, CeilModeDropsAWindowThatStartsInThePadding) {
  const TestOperands operands = {{"x", Line({1, 2})},    {"kernel_sizes", {2}}, {"strides", {3}},
                                 {"pad_type", "custom"}, {"pad", {1, 1}},       {"ceil_mode", true}};
  EXPECT_EQ(InferShape("max_pool", operands), (Shape{1, 1, 1}));
}

TEST(Pool, RefusesWhatItCannotPool) {
  const auto refusal = [](const TestOperands& changed) {
    TestOperands operands = {{"x", FloatType({1, 2, 8, 8})}, {"kernel_sizes", {2, 2}}, {"pad_type", "valid"}};
    for (const auto& [name, operand] : changed) operands.insert_or_assign(name, operand);
    return RefusalOf("max_pool", operands);
  };
  EXPECT_EQ(refusal({{"x", IntType({1, 2, 8, 8})}}), "max_pool 'op': x is of type int32, expected floats");
  EXPECT_EQ(refusal({{"x", FloatType({8, 8})}}), "max_pool 'op': x has shape [8, 8], expected rank 3 to 5");
  EXPECT_EQ(refusal({{"kernel_sizes", {9, 2}}}),
            "max_pool 'op': kernel 9 does not fit into 8 elements along spatial axis 0");
  EXPECT_EQ(refusal({{"kernel_sizes", {2}}}), "max_pool 'op': kernel_sizes has 1 entries, expected 2");
  EXPECT_EQ(refusal({{"kernel_sizes", {2, 0}}}), "max_pool 'op': kernel_sizes has an entry 0, expected at least 1");
  EXPECT_EQ(refusal({{"strides", {0, 1}}}), "max_pool 'op': strides has an entry 0, expected at least 1");
  EXPECT_EQ(refusal({{"pad_type", "full"}}),
            "max_pool 'op': pad_type is 'full', expected valid, same, same_lower or custom");
  EXPECT_EQ(refusal({{"pad_type", "same"}, {"ceil_mode", true}}),
            "max_pool 'op': ceil_mode does not go with pad_type 'same'");
  EXPECT_EQ(refusal({{"pad_type", "custom"}, {"pad", {0, 0, 2, 0}}}),
            "max_pool 'op': a window of 2 elements lies entirely in the padding along spatial axis 1");
  EXPECT_THAT(refusal({{"pad_type", "custom"}, {"pad", {0, 0, 0, 2}}}), HasSubstr("entirely in the padding"));
  EXPECT_THAT(refusal({{"pad_type", "custom"}, {"pad", {-1, 0, 0, 0}}}), HasSubstr("pad has an entry -1"));
}

TEST(Pool, RefusesAnEmptyWindowOfCeilMode) {
  const TestOperands operands = {
      {"x", FloatType({1, 1, 3})}, {"kernel_sizes", {1}}, {"strides", {3}}, {"pad_type", "valid"}, {"ceil_mode", true}};
  EXPECT_THAT(RefusalOf("max_pool", operands), HasSubstr("lies entirely in the padding"));
}

TEST(Pool, RequiresItsPadType) {
  EXPECT_EQ(RefusalOf("max_pool", {{"x", FloatType({1, 1, 3})}, {"kernel_sizes", {1}}}),
            "max_pool 'op': parameter 'pad_type' is missing");
}

}  // namespace
}  // namespace ulmora::engine::program
