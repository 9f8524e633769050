// resample and affine against what PyTorch's grid_sample and affine_grid gave for the same image; crop_resize and
// quantisation against values worked out by hand.

#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::FloatNear;
using testing::HasSubstr;
using testing::Pointwise;

const Tensor kImage = Tensor::Floats({1, 1, 2, 3}, {1, 2, 4, 8, 16, 32});

/// At the corner, between pixels, and outside to the right and to the left below.
const Tensor kPlaces = Tensor::Floats({1, 1, 4, 2}, {-1, -1, 0.25F, 0.5F, 1.5F, -0.2F, -1.25F, 1.75F});

TestOperands Resampling(const char* sampling, const char* padding, bool alignCorners) {
  return {{"x", kImage},
          {"coordinates", kPlaces},
          {"sampling_mode", sampling},
          {"padding_mode", padding},
          {"padding_value", 0.0},
          {"coordinates_mode", "normalized_minus_one_to_one"},
          {"align_corners", alignCorners}};
}

void ExpectResampled(const TestOperands& operands, const std::vector<float>& expected) {
  EXPECT_THAT(FloatsOf(EvaluateOne("resample", operands)), Pointwise(FloatNear(2e-5F), expected));
}

TEST(Resample, LikeGridSampling) {
  ExpectResampled(Resampling("bilinear", "constant", true), {1, 15.625F, 7.6F, 3.75F});
  ExpectResampled(Resampling("bilinear", "constant", false), {0.25F, 22, 0, 0});
  ExpectResampled(Resampling("bilinear", "border", true), {1, 15.625F, 15.2F, 8});
  ExpectResampled(Resampling("bilinear", "border", false), {1, 22, 12.4F, 8});
  ExpectResampled(Resampling("bilinear", "reflection", true), {1, 15.625F, 11.4F, 6.71875F});
  ExpectResampled(Resampling("bilinear", "symmetric", false), {1, 22, 10.85F, 6.25F});
  ExpectResampled(Resampling("nearest", "constant", true), {1, 16, 4, 8});
  ExpectResampled(Resampling("nearest", "constant", false), {1, 16, 0, 0});
  ExpectResampled(Resampling("nearest", "border", false), {1, 16, 4, 8});
}

TEST(Resample, CoordinatesInPixelsAndInShares) {
  TestOperands operands = Resampling("bilinear", "constant", true);
  operands.insert_or_assign("coordinates_mode", "unnormalized");
  operands.insert_or_assign("coordinates", Tensor::Floats({1, 2, 1, 2}, {1.5F, 0, 2.5F, 1}));
  operands.insert_or_assign("padding_value", 2.0);
  ExpectResampled(operands, {3, 17});
  operands.insert_or_assign("coordinates", Tensor::Ints({1, 2, 1, 2}, {2, 1, -1, 0}));
  ExpectResampled(operands, {32, 2});
  operands.insert_or_assign("coordinates_mode", "normalized_zero_to_one");
  operands.insert_or_assign("coordinates", Tensor::Floats({1, 1, 1, 2}, {0.75F, 1}));
  ExpectResampled(operands, {24});
  operands.insert_or_assign("align_corners", false);
  operands.insert_or_assign("coordinates", Tensor::Floats({1, 1, 1, 2}, {0.5F, 0.25F}));
  ExpectResampled(operands, {2});
}

TEST(Resample, Refusals) {
  TestOperands operands = Resampling("bicubic", "constant", true);
  EXPECT_EQ(RefusalOf("resample", operands), "resample 'op': sampling_mode is 'bicubic', expected bilinear or nearest");
  operands = Resampling("bilinear", "wrap", true);
  EXPECT_THAT(RefusalOf("resample", operands), HasSubstr("padding_mode is 'wrap'"));
  operands = Resampling("bilinear", "border", true);
  operands.insert_or_assign("coordinates", Ramp({2, 1, 1, 2}));
  EXPECT_THAT(RefusalOf("resample", operands), HasSubstr("coordinates has shape [2, 1, 1, 2], expected [1, 1, 1, 2]"));
}

TEST(Affine, LikeGridSamplingOfAnAffineGrid) {
  TestOperands operands = Resampling("bilinear", "constant", true);
  operands.erase("coordinates");
  operands.emplace("transform_matrix", Tensor::Floats({1, 6}, {0.5F, 0.25F, 0.1F, -0.25F, 1, 0}));
  operands.emplace("output_height", 2);
  operands.emplace("output_width", 2);
  const auto sampled = [&] { return FloatsOf(EvaluateOne("affine", operands)); };
  EXPECT_THAT(sampled(), Pointwise(FloatNear(2e-5F), std::vector<float>{2.53125F, 2.3625F, 12.95F, 26.3625F}));
  operands.insert_or_assign("align_corners", false);
  EXPECT_THAT(sampled(), Pointwise(FloatNear(2e-5F), std::vector<float>{2.976562F, 2.340625F, 13.7375F, 24.403126F}));
  operands.insert_or_assign("transform_matrix", Ramp({2, 6}));
  EXPECT_THAT(RefusalOf("affine", operands), HasSubstr("transform_matrix has shape [2, 6], expected [1, 6]"));
}

TestOperands Crop(std::initializer_list<float> box, int height, int width) {
  return {{"x", kImage},
          {"boxes", Tensor::Floats({1, 4}, box)},
          {"target_height", height},
          {"target_width", width},
          {"sampling_mode", "STRICT_ALIGN_CORNERS"}};
}

TEST(CropResize, CornersAreSampled) {
  const Tensor crop = EvaluateOne("crop_resize", Crop({0, 0.5F, 1, 1.5F}, 3, 2), 7);
  EXPECT_EQ(crop.shape(), (Shape{1, 1, 3, 2}));
  EXPECT_THAT(FloatsOf(crop), ElementsAre(1.5F, 3, 6.75F, 13.5F, 12, 24));
}

TEST(CropResize, BoxesComeInFourForms) {
  TestOperands operands = Crop({0.5F, 0, 1.5F, 1}, 1, 2);
  operands.insert_or_assign("box_coordinate_mode", "CORNERS_WIDTH_FIRST");
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands, 7)), ElementsAre(1.5F, 3));
  operands = Crop({0, 1, 0, 2}, 1, 2);
  operands.insert_or_assign("box_coordinate_mode", "CENTER_SIZE_HEIGHT_FIRST");
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands, 7)), ElementsAre(1, 4));
  operands = Crop({1, 1, 2, 0}, 1, 2);
  operands.insert_or_assign("box_coordinate_mode", "CENTER_SIZE_WIDTH_FIRST");
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands, 7)), ElementsAre(8, 32));
  operands = Crop({0, 0, 1, 0.5F}, 1, 2);
  operands.insert_or_assign("normalized_coordinates", true);
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands, 7)), ElementsAre(1, 2));
  operands = Crop({0, 0, 2, 4}, 1, 2);
  operands.insert_or_assign("spatial_scale", 0.5);
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands, 7)), ElementsAre(1, 4));
}

TEST(CropResize, SamplingModesDivideTheBox) {
  const auto modes = [](const char* mode) {
    TestOperands operands = Crop({0, 0, 0, 1}, 1, 2);
    operands.insert_or_assign("sampling_mode", mode);
    return FloatsOf(EvaluateOne("crop_resize", operands, 7));
  };
  // Two samples of two pixels, of which 1 and 2 are the values.
  EXPECT_THAT(modes("DEFAULT"), ElementsAre(1, 2));
  // At least one pixel is divided, so that a box of one row is sampled half a pixel below it.
  EXPECT_THAT(modes("OFFSET_CORNERS"), ElementsAre(5.625F, 7.875F));
  EXPECT_THAT(modes("UNALIGN_CORNERS"), ElementsAre(1, 2));
}

TEST(CropResize, OutsideIsPaddedFromOpset6) {
  TestOperands operands = Crop({0, -1, 0, 1}, 1, 3);
  operands.insert_or_assign("pad_value", -5.0);
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands, 7)), ElementsAre(-5, 1, 2));
  operands.erase("boxes");
  operands.insert_or_assign("roi", Tensor::Floats({1, 1, 4, 1, 1}, {0, -1, 0, 1}));
  const Tensor old = EvaluateOne("crop_resize", operands, 5);
  EXPECT_EQ(old.shape(), (Shape{1, 1, 1, 1, 3}));
  EXPECT_THAT(FloatsOf(old), ElementsAre(1, 1, 2));
}

TEST(CropResize, BoxesOfEveryImageOrOfOne) {
  TestOperands operands = {{"x", Ramp({2, 1, 1, 2})}, {"target_width", 2}, {"sampling_mode", "STRICT_ALIGN_CORNERS"}};
  operands.insert_or_assign("roi", Tensor::Floats({1, 1, 4, 1, 1}, {0, 0, 0, 1}));
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands)), ElementsAre(0, 1, 2, 3));
  operands.insert_or_assign("roi", Tensor::Floats({1, 1, 5, 1, 1}, {1, 0, 0, 0, 1}));
  EXPECT_EQ(InferShape("crop_resize", operands), (Shape{1, 1, 1, 1, 2}));
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands)), ElementsAre(2, 3));
  operands.erase("roi");
  operands.insert_or_assign("boxes", Tensor::Floats({1, 4}, {0, 0, 0, 1}));
  operands.insert_or_assign("box_indices", Tensor::IntVector({1}));
  EXPECT_THAT(FloatsOf(EvaluateOne("crop_resize", operands, 7)), ElementsAre(2, 3));
  operands.insert_or_assign("box_indices", Tensor::IntVector({2}));
  EXPECT_THROW(static_cast<void>(EvaluateOne("crop_resize", operands, 7)), std::runtime_error);
  EXPECT_THAT(RefusalOf("crop_resize", operands, 6), HasSubstr("parameter 'roi' is missing"));
}

TEST(Quantize, RoundsHalvesToEvenAndClips) {
  const Tensor x = Tensor::Floats({7}, {-1, 0.24F, 0.25F, 0.75F, 0.26F, 100, -100});
  const TestOperands unsignedBytes = {{"input", x},
                                      {"scale", 0.5},
                                      {"zero_point", Tensor::Ints({}, {3}, ElementType::UInt8)},
                                      {"output_dtype", "uint8"}};
  const Tensor q = EvaluateOne("quantize", unsignedBytes, 7);
  EXPECT_THAT(IntsOf(q), ElementsAre(1, 3, 3, 5, 4, 203, 0));
  const TestOperands back = {{"input", q}, {"scale", 0.5}, {"zero_point", Tensor::Ints({}, {3}, ElementType::UInt8)}};
  EXPECT_THAT(FloatsOf(EvaluateOne("dequantize", back, 7)), ElementsAre(-1, 0, 0, 1, 0.5F, 100, -1.5F));
  const TestOperands signedBytes = {{"input", x}, {"scale", 0.5}, {"output_dtype", "int8"}};
  EXPECT_THAT(IntsOf(EvaluateOne("quantize", signedBytes, 7)), ElementsAre(-2, 0, 0, 2, 1, 127, -128));
}

TEST(Quantize, ScalesAlongAnAxis) {
  const TestOperands operands = {
      {"input", Ramp({2, 2}, 1.0F)}, {"scale", Tensor::Floats({2}, {1, 0.5F})}, {"axis", -1}, {"output_dtype", "int8"}};
  EXPECT_THAT(IntsOf(EvaluateOne("quantize", operands, 7)), ElementsAre(1, 4, 3, 8));
  EXPECT_EQ(RefusalOf("quantize", {{"input", Ramp({2})}, {"scale", Ramp({2})}, {"output_dtype", "int8"}}),
            "quantize 'op': scale has shape [2], but there is no axis for it");
  EXPECT_THAT(RefusalOf("quantize", {{"input", Ramp({2})}, {"scale", 1.0}, {"output_dtype", "int16"}}),
              HasSubstr("expected int8 or uint8"));
  EXPECT_THAT(RefusalOf("dequantize", {{"input", Ramp({2})}, {"scale", 1.0}}), HasSubstr("expected integers"));
}

}  // namespace
}  // namespace ulmora::engine::program
