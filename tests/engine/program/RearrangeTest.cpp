#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(Rearrange, PixelShuffleAndDepthToSpaceOrderChannelsDifferently) {
  // Two result channels from eight: channel c of the input holds the value c.
  const Tensor x = Ramp({1, 8, 1, 1});
  const Tensor shuffled = EvaluateOne("pixel_shuffle", {{"x", x}, {"upscale_factor", 2}});
  EXPECT_EQ(shuffled.shape(), (Shape{1, 2, 2, 2}));
  EXPECT_THAT(FloatsOf(shuffled), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
  const Tensor spread = EvaluateOne("depth_to_space", {{"x", x}, {"block_size", 2}});
  EXPECT_EQ(spread.shape(), (Shape{1, 2, 2, 2}));
  EXPECT_THAT(FloatsOf(spread), ElementsAre(0, 2, 4, 6, 1, 3, 5, 7));
}

TEST(Rearrange, PixelShuffleOfSeveralPixels) {
  const Tensor x = Ramp({1, 4, 1, 2});
  EXPECT_THAT(FloatsOf(EvaluateOne("pixel_shuffle", {{"x", x}, {"upscale_factor", 2}})),
              ElementsAre(0, 2, 1, 3, 4, 6, 5, 7));
}

TEST(Rearrange, InversesUndoTheirCounterparts) {
  const Tensor x = Ramp({2, 18, 2, 3});
  const Tensor shuffled = EvaluateOne("pixel_shuffle", {{"x", x}, {"upscale_factor", 3}});
  const Tensor factor = Tensor::Ints({}, {3}, ElementType::UInt32);
  const Tensor back = EvaluateOne("pixel_unshuffle", {{"x", shuffled}, {"downscale_factor", factor}});
  EXPECT_EQ(back.shape(), x.shape());
  EXPECT_EQ(FloatsOf(back), FloatsOf(x));
  const Tensor spread = EvaluateOne("depth_to_space", {{"x", x}, {"block_size", 3}});
  EXPECT_EQ(FloatsOf(EvaluateOne("space_to_depth", {{"x", spread}, {"block_size", 3}})), FloatsOf(x));
  EXPECT_NE(FloatsOf(spread), FloatsOf(shuffled));
}

TEST(Rearrange, SpaceToBatchPadsAndDeals) {
  const TestOperands operands = {
      {"x", Ramp({1, 1, 2, 3}, 1.0F)}, {"block_shape", {2, 2}}, {"paddings", Tensor::Ints({2, 2}, {0, 0, 0, 1})}};
  const Tensor result = EvaluateOne("space_to_batch", operands);
  EXPECT_EQ(result.shape(), (Shape{4, 1, 1, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(1, 3, 2, 0, 4, 6, 5, 0));
}

TEST(Rearrange, BatchToSpaceUndoesIt) {
  const TestOperands operands = {{"x", Tensor::Floats({4, 1, 1, 2}, {1, 3, 2, 0, 4, 6, 5, 0})},
                                 {"block_shape", {2, 2}},
                                 {"crops", Tensor::Ints({2, 2}, {0, 0, 0, 1})}};
  const Tensor result = EvaluateOne("batch_to_space", operands);
  EXPECT_EQ(result.shape(), (Shape{1, 1, 2, 3}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST(Rearrange, RefusesWhatDoesNotDivide) {
  const TensorType x = FloatType({1, 6, 5, 4});
  EXPECT_EQ(RefusalOf("pixel_shuffle", {{"x", x}, {"upscale_factor", 2}}),
            "pixel_shuffle 'op': x has shape [1, 6, 5, 4], expected a multiple of 4 along axis 1");
  EXPECT_EQ(RefusalOf("pixel_unshuffle", {{"x", x}, {"downscale_factor", 2}}),
            "pixel_unshuffle 'op': x has shape [1, 6, 5, 4], expected a multiple of 2 along axis 2");
  EXPECT_EQ(RefusalOf("depth_to_space", {{"x", x}, {"block_size", 0}}),
            "depth_to_space 'op': block_size is 0, expected 1 to 32768");
  EXPECT_THAT(RefusalOf("depth_to_space", {{"x", x}, {"block_size", INT32_MAX}}), HasSubstr("expected 1 to 32768"));
  EXPECT_THAT(RefusalOf("space_to_depth", {{"x", FloatType({6, 4, 4})}, {"block_size", 2}}),
              HasSubstr("expected rank 4"));
  const Tensor none = Tensor::Ints({2, 2}, {0, 0, 0, 0});
  EXPECT_THAT(RefusalOf("space_to_batch", {{"x", x}, {"block_shape", {2, 2}}, {"paddings", none}}),
              HasSubstr("padded size [5, 4] is no multiple of block_shape [2, 2]"));
  EXPECT_THAT(RefusalOf("space_to_batch", {{"x", x}, {"block_shape", {2, 2}}, {"paddings", {0, 0}}}),
              HasSubstr("paddings has shape [2], expected [2, 2]"));
  const Tensor crops = Tensor::Ints({2, 2}, {5, 5, 0, 0});
  EXPECT_THAT(RefusalOf("batch_to_space", {{"x", FloatType({4, 1, 5, 5})}, {"block_shape", {2, 2}}, {"crops", crops}}),
              HasSubstr("crops leave a size of [0, 10]"));
}

}  // namespace
}  // namespace ulmora::engine::program
