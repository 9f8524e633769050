#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(Linear, MatmulOfTwoMatrices) {
  const Tensor result = EvaluateOne("matmul", {{"x", Ramp({2, 3}, 1.0F)}, {"y", Ramp({3, 2}, 1.0F)}});
  EXPECT_EQ(result.shape(), (Shape{2, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(22, 28, 49, 64));
}

TEST(Linear, MatmulTransposesEitherSide) {
  const Tensor xt = Tensor::Floats({3, 2}, {1, 4, 2, 5, 3, 6});
  const Tensor yt = Tensor::Floats({2, 3}, {1, 3, 5, 2, 4, 6});
  EXPECT_THAT(FloatsOf(EvaluateOne("matmul", {{"x", xt}, {"y", Ramp({3, 2}, 1.0F)}, {"transpose_x", true}})),
              ElementsAre(22, 28, 49, 64));
  EXPECT_THAT(FloatsOf(EvaluateOne("matmul", {{"x", xt}, {"y", yt}, {"transpose_x", true}, {"transpose_y", true}})),
              ElementsAre(22, 28, 49, 64));
}

TEST(Linear, MatmulBroadcastsBatches) {
  // Two matrices against one row of three vectors.
  const Tensor x = Tensor::Floats({2, 1, 1, 2}, {1, 0, 0, 1});
  const Tensor y = Ramp({3, 2, 1});
  const Tensor result = EvaluateOne("matmul", {{"x", x}, {"y", y}});
  EXPECT_EQ(result.shape(), (Shape{2, 3, 1, 1}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(0, 2, 4, 1, 3, 5));
}

TEST(Linear, MatmulOfVectorsDropsTheirDimension) {
  const Tensor v = Ramp({3}, 1.0F);
  const Tensor m = Ramp({3, 2}, 1.0F);
  EXPECT_THAT(FloatsOf(EvaluateOne("matmul", {{"x", v}, {"y", m}})), ElementsAre(22, 28));
  EXPECT_EQ(InferShape("matmul", {{"x", v}, {"y", m}}), (Shape{2}));
  EXPECT_EQ(InferShape("matmul", {{"x", Ramp({4, 2, 3})}, {"y", v}}), (Shape{4, 2}));
  EXPECT_EQ(InferShape("matmul", {{"x", v}, {"y", v}}), Shape{});
  EXPECT_THAT(FloatsOf(EvaluateOne("matmul", {{"x", v}, {"y", v}})), ElementsAre(14));
}

TEST(Linear, MatmulOfIntegersWrapsInsteadOfOverflowing) {
  const Tensor x = Tensor::Ints({1, 2}, {INT32_MAX, 3});
  const Tensor y = Tensor::Ints({2, 1}, {2, 1});
  EXPECT_THAT(IntsOf(EvaluateOne("matmul", {{"x", x}, {"y", y}})), ElementsAre(1));  // -2 + 3
}

TEST(Linear, MatmulWithAWeightHasTheTypeOfTheOther) {
  const TensorType half = {ElementType::Float16, {1, 3}, true};
  EXPECT_EQ(InferOp("matmul", {{"x", half}, {"y", Ramp({3, 2})}}, 7).at(0).element, ElementType::Float16);
  const TensorType column = {ElementType::Float16, {3, 2}, true};
  EXPECT_EQ(InferOp("matmul", {{"x", Ramp({1, 3})}, {"y", column}}, 7).at(0).element, ElementType::Float16);
}

TEST(Linear, MatmulRefusesWhatDoesNotMeet) {
  EXPECT_EQ(RefusalOf("matmul", {{"x", FloatType({2, 3})}, {"y", FloatType({2, 3})}}),
            "matmul 'op': operands have shapes [2, 3] and [2, 3], but 3 columns meet 2 rows");
  EXPECT_THAT(RefusalOf("matmul", {{"x", FloatType({2, 1, 3})}, {"y", FloatType({3, 3, 3})}}),
              HasSubstr("whose batch dimensions do not broadcast"));
  EXPECT_THAT(RefusalOf("matmul", {{"x", FloatType({})}, {"y", FloatType({3})}}), HasSubstr("expected rank 1 or more"));
  EXPECT_THAT(RefusalOf("matmul", {{"x", FloatType({3})}, {"y", IntType({3})}}),
              HasSubstr("operands are of types float32 and int32"));
}

TEST(Linear, LinearMultipliesByTheTransposedWeight) {
  TestOperands operands = {{"x", Ramp({1, 2, 3}, 1.0F)}, {"weight", Tensor::Floats({2, 3}, {1, 0, 0, 1, 1, 1})}};
  const Tensor result = EvaluateOne("linear", operands);
  EXPECT_EQ(result.shape(), (Shape{1, 2, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(1, 6, 4, 15));
  operands.insert({"bias", Tensor::Floats({2}, {10, 20})});
  EXPECT_THAT(FloatsOf(EvaluateOne("linear", operands)), ElementsAre(11, 26, 14, 35));
  operands.insert_or_assign("x", Ramp({3}, 1.0F));
  EXPECT_THAT(FloatsOf(EvaluateOne("linear", operands)), ElementsAre(11, 26));
}

TEST(Linear, LinearRefusesOtherSizes) {
  EXPECT_EQ(RefusalOf("linear", {{"x", FloatType({4, 2})}, {"weight", Ramp({2, 3})}}),
            "linear 'op': weight has shape [2, 3], but x has shape [4, 2]");
  EXPECT_EQ(RefusalOf("linear", {{"x", FloatType({4, 3})}, {"weight", Ramp({2, 3})}, {"bias", Ramp({3})}}),
            "linear 'op': bias has shape [3], expected [2]");
  EXPECT_THAT(RefusalOf("linear", {{"x", FloatType({})}, {"weight", Ramp({2, 3})}}), HasSubstr("x has shape []"));
}

TEST(Linear, EinsumOfRankFourSharesBatchAndHeight) {
  // n = 1, c = 2, h = 2, w = 2 against u = 1: out[c, h] = sum over w of x[c, h, w] * y[w, h].
  const std::vector<Tensor> values = {Ramp({1, 2, 2, 2}, 1.0F), Tensor::Floats({1, 2, 2, 1}, {1, 10, 100, 1000})};
  const Tensor result = EvaluateOne("einsum", {{"values", values}, {"equation", "nchw,nwhu->nchu"}});
  EXPECT_EQ(result.shape(), (Shape{1, 2, 2, 1}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(201, 4030, 605, 8070));
}

TEST(Linear, EinsumOfRankThreeUnderOtherLetters) {
  const std::vector<Tensor> values = {Ramp({2, 1, 2}, 1.0F), Tensor::Floats({2, 1, 2}, {1, 0, 0, 1})};
  const Tensor result = EvaluateOne("einsum", {{"values", values}, {"equation", "abc, cbd -> abd"}});
  EXPECT_EQ(result.shape(), (Shape{2, 1, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(1, 2, 3, 4));
}

TEST(Linear, EinsumRefusesOtherEquations) {
  const auto refusal = [](const char* equation) {
    const std::vector<Tensor> values = {Ramp({2, 2, 2}), Ramp({2, 2, 2})};
    return RefusalOf("einsum", {{"values", values}, {"equation", equation}});
  };
  EXPECT_EQ(refusal("abc,cbd->adb"),
            "einsum 'op': equation is 'abc,cbd->adb', expected nchw,nwhu->nchu or chw,whr->chr with these or other "
            "letters");
  EXPECT_THAT(refusal("abc,cba->aba"), HasSubstr("equation is"));
  EXPECT_THAT(refusal("abb,bbd->abd"), HasSubstr("equation is"));
  // A letter more than the pattern has: a sum over two of them.
  EXPECT_THAT(refusal("abc,ced->abd"), HasSubstr("equation is"));
  EXPECT_THAT(refusal("abc,cbd->aed"), HasSubstr("equation is"));
  EXPECT_THAT(refusal("ab,bc->ac"), HasSubstr("equation is"));
  EXPECT_THAT(refusal(""), HasSubstr("equation is ''"));
  const std::vector<Tensor> odd = {Ramp({2, 2, 3}), Ramp({2, 2, 2})};
  EXPECT_THAT(RefusalOf("einsum", {{"values", odd}, {"equation", "chw,whr->chr"}}),
              HasSubstr("values have shapes [2, 2, 3] and [2, 2, 2]"));
  const std::vector<Tensor> one = {Ramp({2, 2, 3})};
  EXPECT_THAT(RefusalOf("einsum", {{"values", one}, {"equation", "chw,whr->chr"}}), HasSubstr("has 1 operands"));
}

}  // namespace
}  // namespace ulmora::engine::program
