#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace ulmora::engine::program {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::FloatNear;
using testing::HasSubstr;
using testing::Pointwise;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// One query of four elements against two keys: scores q.k / 2 are ln 3 and 0, weights 3/4 and 1/4.
TestOperands OneQuery() {
  return {{"query", Tensor::Floats({1, 1, 4}, {2, 0, 0, 0})},
          {"key", Tensor::Floats({1, 2, 4}, {std::log(3.0F), 0, 0, 0, 0, 9, 9, 9})},
          {"value", Tensor::Floats({1, 2, 2}, {4, 8, 0, 16})}};
}

TEST(Attention, WeighsValuesByTheSoftmaxOfScaledScores) {
  const Tensor result = EvaluateOne("scaled_dot_product_attention", OneQuery(), 8);
  EXPECT_EQ(result.shape(), (Shape{1, 1, 2}));
  EXPECT_THAT(FloatsOf(result), Pointwise(FloatNear(1e-5F), {3.0F, 10.0F}));
}

TEST(Attention, BoolMaskShutsKeysOut) {
  TestOperands operands = OneQuery();
  operands.insert({"attn_mask", Tensor::Bools({1, 2}, {0, 1})});
  EXPECT_THAT(FloatsOf(EvaluateOne("scaled_dot_product_attention", operands, 8)), ElementsAre(0, 16));
  operands.insert_or_assign("attn_mask", Tensor::Bools({1, 2}, {0, 0}));
  EXPECT_THAT(FloatsOf(EvaluateOne("scaled_dot_product_attention", operands, 8)), Each(0.0F));
}

TEST(Attention, FloatMaskIsAddedToTheScores) {
  TestOperands operands = OneQuery();
  operands.insert({"attn_mask", Tensor::Floats({1, 1, 2}, {0, std::log(3.0F)})});
  EXPECT_THAT(FloatsOf(EvaluateOne("scaled_dot_product_attention", operands, 8)),
              Pointwise(FloatNear(1e-5F), {2.0F, 12.0F}));
  operands.insert_or_assign("attn_mask", Tensor::Floats({1, 1, 2}, {-kInfinity, 0}));
  EXPECT_THAT(FloatsOf(EvaluateOne("scaled_dot_product_attention", operands, 8)), ElementsAre(0, 16));
}

TEST(Attention, BatchesBroadcast) {
  // One key and one value per head: the result is the value, whatever the query.
  const TestOperands operands = {
      {"query", Ramp({2, 3, 1, 2})}, {"key", Ramp({1, 3, 1, 2})}, {"value", Ramp({1, 3, 1, 2})}};
  const Tensor result = EvaluateOne("scaled_dot_product_attention", operands, 8);
  EXPECT_EQ(result.shape(), (Shape{2, 3, 1, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(0, 1, 2, 3, 4, 5, 0, 1, 2, 3, 4, 5));
}

TEST(Attention, RefusesWhatDoesNotMatch) {
  const auto refusal = [](const TestOperands& changed) {
    TestOperands operands = {
        {"query", FloatType({1, 5, 4})}, {"key", FloatType({1, 6, 4})}, {"value", FloatType({1, 6, 3})}};
    for (const auto& [name, operand] : changed) operands.insert_or_assign(name, operand);
    return RefusalOf("scaled_dot_product_attention", operands, 8);
  };
  EXPECT_EQ(refusal({{"key", FloatType({1, 6, 5})}}),
            "scaled_dot_product_attention 'op': query [1, 5, 4], key [1, 6, 5] and value [1, 6, 3] do not match");
  EXPECT_THAT(refusal({{"value", FloatType({1, 7, 3})}}), HasSubstr("do not match"));
  EXPECT_THAT(refusal({{"query", FloatType({2, 5, 4})}, {"key", FloatType({3, 6, 4})}}), HasSubstr("do not match"));
  EXPECT_THAT(refusal({{"query", FloatType({5, 4})}}), HasSubstr("expected rank 3 to 5"));
  EXPECT_THAT(refusal({{"attn_mask", FloatType({5, 5})}}), HasSubstr("expected one that broadcasts to [1, 5, 6]"));
  EXPECT_THAT(refusal({{"attn_mask", FloatType({2, 1, 5, 6})}}), HasSubstr("attn_mask has shape"));
  EXPECT_THAT(refusal({{"attn_mask", IntType({5, 6})}}), HasSubstr("expected bool or floats"));
}

}  // namespace
}  // namespace ulmora::engine::program
