#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(TensorGather, GatherReplacesTheAxisByTheIndices) {
  const TestOperands operands = {{"x", Ramp({2, 3, 2})}, {"indices", Tensor::Ints({1, 2}, {2, 0})}, {"axis", 1}};
  const Tensor result = EvaluateOne("gather", operands);
  EXPECT_EQ(result.shape(), (Shape{2, 1, 2, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(4, 5, 0, 1, 10, 11, 6, 7));
  EXPECT_EQ(InferShape("gather", {{"x", Ramp({4, 3})}, {"indices", Tensor::Int(1)}}), (Shape{3}));
}

TEST(TensorGather, BatchDimensionsGoTogether) {
  const TestOperands operands = {
      {"x", Ramp({2, 3})}, {"indices", Tensor::Ints({2, 2}, {2, 0, 1, 1})}, {"axis", 1}, {"batch_dims", 1}};
  const Tensor result = EvaluateOne("gather", operands);
  EXPECT_EQ(result.shape(), (Shape{2, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(2, 0, 4, 4));
}

TEST(TensorGather, NegativeIndicesAreOutOfBoundsFromOpset7) {
  const TestOperands operands = {{"x", Ramp({3})}, {"indices", {-1, 0}}};
  EXPECT_THAT(FloatsOf(EvaluateOne("gather", operands, 6)), ElementsAre(2, 0));
  EXPECT_THROW(static_cast<void>(EvaluateOne("gather", operands, 7)), std::runtime_error);
  EXPECT_THROW(static_cast<void>(EvaluateOne("gather", {{"x", Ramp({3})}, {"indices", {3}}})), std::runtime_error);
  EXPECT_THROW(static_cast<void>(EvaluateOne("gather", {{"x", Ramp({3})}, {"indices", {-4}}})), std::runtime_error);
}

TEST(TensorGather, GatherRefusals) {
  EXPECT_EQ(RefusalOf("gather", {{"x", Ramp({2, 3})}, {"indices", {0}}, {"axis", 1}, {"batch_dims", 1}}),
            "gather 'op': batch_dims is 1, but x has shape [2, 3], indices [1] and axis is 1");
  EXPECT_THAT(RefusalOf("gather", {{"x", Ramp({2, 3})}, {"indices", {0, 1}}, {"axis", 0}, {"batch_dims", 1}}),
              HasSubstr("batch_dims is 1"));
  EXPECT_THAT(RefusalOf("gather", {{"x", Ramp({2})}, {"indices", {0}}, {"batch_dims", -1}}), HasSubstr("batch_dims"));
  EXPECT_THAT(RefusalOf("gather", {{"x", Ramp({2})}, {"indices", Ramp({1})}}), HasSubstr("expected integers"));
  EXPECT_THAT(RefusalOf("gather", {{"x", Tensor::Float(1)}, {"indices", {0}}}), HasSubstr("axis 0 is outside"));
}

TEST(TensorGather, GatherAlongAxisTakesOnePerPlace) {
  const TestOperands operands = {{"x", Ramp({2, 3})}, {"indices", Tensor::Ints({1, 3}, {1, 0, -1})}};
  const Tensor result = EvaluateOne("gather_along_axis", operands);
  EXPECT_EQ(result.shape(), (Shape{1, 3}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(3, 1, 5));
  EXPECT_EQ(RefusalOf("gather_along_axis", {{"x", Ramp({2, 3})}, {"indices", Tensor::Ints({1, 2}, {0, 0})}}),
            "gather_along_axis 'op': indices has shape [1, 2], but x has shape [2, 3]; only axis 0 may differ");
  EXPECT_THAT(RefusalOf("gather_along_axis", {{"x", Ramp({2, 3})}, {"indices", {0}}}), HasSubstr("[1]"));
}

TEST(TensorGather, BandPartKeepsDiagonals) {
  const auto band = [](int lower, int upper) {
    return FloatsOf(EvaluateOne("band_part", {{"x", Ramp({3, 3}, 1.0F)}, {"lower", lower}, {"upper", upper}}));
  };
  EXPECT_THAT(band(0, 0), ElementsAre(1, 0, 0, 0, 5, 0, 0, 0, 9));
  EXPECT_THAT(band(-1, 0), ElementsAre(1, 0, 0, 4, 5, 0, 7, 8, 9));
  EXPECT_THAT(band(0, -1), ElementsAre(1, 2, 3, 0, 5, 6, 0, 0, 9));
  EXPECT_THAT(band(1, 1), ElementsAre(1, 2, 0, 4, 5, 6, 0, 8, 9));
  EXPECT_THAT(FloatsOf(EvaluateOne("band_part", {{"x", Ramp({1, 2}, 1.0F)}})), ElementsAre(1, 2));
  EXPECT_THAT(RefusalOf("band_part", {{"x", Ramp({2})}}), HasSubstr("expected rank 2 or more"));
}

TEST(TensorGather, CumsumForwardBackwardWithAndWithoutItself) {
  const auto sum = [](bool exclusive, bool reverse) {
    const TestOperands operands = {
        {"x", Ramp({2, 3}, 1.0F)}, {"axis", 1}, {"exclusive", exclusive}, {"reverse", reverse}};
    return FloatsOf(EvaluateOne("cumsum", operands));
  };
  EXPECT_THAT(sum(false, false), ElementsAre(1, 3, 6, 4, 9, 15));
  EXPECT_THAT(sum(true, false), ElementsAre(0, 1, 3, 0, 4, 9));
  EXPECT_THAT(sum(false, true), ElementsAre(6, 5, 3, 15, 11, 6));
  EXPECT_THAT(sum(true, true), ElementsAre(5, 3, 0, 11, 6, 0));
  EXPECT_THAT(FloatsOf(EvaluateOne("cumsum", {{"x", Ramp({2, 3}, 1.0F)}})), ElementsAre(1, 2, 3, 5, 7, 9));
  const Tensor large = Tensor::IntVector({INT32_MAX, 1});
  EXPECT_THAT(IntsOf(EvaluateOne("cumsum", {{"x", large}})), ElementsAre(INT32_MAX, INT32_MIN));
}

}  // namespace
}  // namespace ulmora::engine::program
