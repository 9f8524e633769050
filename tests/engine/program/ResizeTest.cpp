#include "engine/program/Interpret.h"
#include "engine/program/Specialize.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/ProgramTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::FloatNear;
using testing::HasSubstr;
using testing::Pointwise;

/// A row of samples as [1, 1, 1, n].
Tensor Row(std::vector<float> values) {
  const Shape shape = {1, 1, 1, static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(shape, std::move(values));
}

std::vector<float> ResizeRow(std::string_view key, std::vector<float> values, TestOperands operands) {
  operands.insert({"x", Row(std::move(values))});
  return FloatsOf(EvaluateOne(key, operands));
}

std::vector<float> BilinearTo(int width, std::string mode, std::vector<float> values) {
  return ResizeRow("resize_bilinear", std::move(values),
                   {{"target_size_width", width}, {"sampling_mode", Tensor::Text(std::move(mode))}});
}

TEST(Resize, GridsFromTwoToFive) {
  // Samples 0 and 1 make the value the position.
  const auto near = [](const std::vector<float>& expected) { return Pointwise(FloatNear(1e-6F), expected); };
  EXPECT_THAT(BilinearTo(5, "STRICT_ALIGN_CORNERS", {0, 1}), near({0, .25F, .5F, .75F, 1}));
  EXPECT_THAT(BilinearTo(5, "ALIGN_CORNERS", {0, 1}), near({0, .25F, .5F, .75F, 1}));
  EXPECT_THAT(BilinearTo(5, "UNALIGN_CORNERS", {0, 1}), near({0, .1F, .5F, .9F, 1}));
  EXPECT_THAT(BilinearTo(5, "DEFAULT", {0, 1}), near({0, .4F, .8F, 1, 1}));
  EXPECT_THAT(BilinearTo(5, "OFFSET_CORNERS", {0, 1}), near({.1F, .3F, .5F, .7F, .9F}));
}

TEST(Resize, GridsThatShrink) {
  const auto near = [](const std::vector<float>& expected) { return Pointwise(FloatNear(1e-6F), expected); };
  EXPECT_THAT(BilinearTo(2, "DEFAULT", {0, 1, 2, 3, 4}), near({0, 2.5F}));
  EXPECT_THAT(BilinearTo(2, "UNALIGN_CORNERS", {0, 1, 2, 3, 4}), near({0.75F, 3.25F}));
  EXPECT_THAT(BilinearTo(2, "STRICT_ALIGN_CORNERS", {0, 1, 2, 3, 4}), near({0, 4}));
  EXPECT_THAT(BilinearTo(2, "OFFSET_CORNERS", {0, 1, 2, 3, 4}), near({1, 3}));
}

TEST(Resize, OneSampleIsTheFirstOrTheMiddle) {
  EXPECT_THAT(BilinearTo(1, "STRICT_ALIGN_CORNERS", {0, 1, 2}), ElementsAre(0));
  EXPECT_THAT(BilinearTo(1, "DEFAULT", {0, 1, 2}), ElementsAre(0));
  EXPECT_THAT(BilinearTo(1, "ALIGN_CORNERS", {0, 1, 2, 3}), ElementsAre(1.5F));
  EXPECT_THAT(BilinearTo(1, "UNALIGN_CORNERS", {0, 1, 2}), ElementsAre(1));
}

TEST(Resize, UpsampleBilinearAlignsCornersByDefault) {
  const auto upsample = [](TestOperands operands) {
    operands.insert({"scale_factor_width", 2.5F});
    return ResizeRow("upsample_bilinear", {0, 1}, std::move(operands));
  };
  const auto near = [](const std::vector<float>& expected) { return Pointwise(FloatNear(1e-6F), expected); };
  EXPECT_THAT(upsample({}), near({0, .25F, .5F, .75F, 1}));
  EXPECT_THAT(upsample({{"align_corners", false}}), near({0, .1F, .5F, .9F, 1}));
  EXPECT_THAT(upsample({{"align_corners", false}, {"half_pixel_centers", false}}), near({0, .4F, .8F, 1, 1}));
}

TEST(Resize, BilinearInBothDirections) {
  const TestOperands operands = {{"x", Tensor::Floats({1, 1, 2, 2}, {0, 1, 2, 3})},
                                 {"target_size_height", 3},
                                 {"target_size_width", 3},
                                 {"sampling_mode", "ALIGN_CORNERS"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("resize_bilinear", operands)), ElementsAre(0, .5F, 1, 1, 1.5F, 2, 2, 2.5F, 3));
}

TEST(Resize, NearestRepeatsForIntegerFactors) {
  const TestOperands operands = {{"x", Ramp({1, 1, 2, 2})}, {"scale_factor_height", 2}, {"scale_factor_width", 2.0F}};
  EXPECT_THAT(FloatsOf(EvaluateOne("upsample_nearest_neighbor", operands)),
              ElementsAre(0, 0, 1, 1, 0, 0, 1, 1, 2, 2, 3, 3, 2, 2, 3, 3));
}

TEST(Resize, NearestTakesTheFloorForFractionalFactors) {
  EXPECT_THAT(ResizeRow("upsample_nearest_neighbor", {0, 1}, {{"scale_factor_width", 1.5F}}), ElementsAre(0, 0, 1));
  EXPECT_THAT(
      ResizeRow("resize_nearest_neighbor", {0, 1, 2, 3, 4}, {{"target_size_height", 1}, {"target_size_width", 3}}),
      ElementsAre(0, 1, 3));
}

TEST(Resize, SizeIsRoundedDown) {
  const auto width = [](float factor) {
    return InferShape("upsample_bilinear", {{"x", FloatType({1, 1, 1, 100})}, {"scale_factor_width", factor}}).at(3);
  };
  EXPECT_EQ(width(1.999F), 199);
  EXPECT_EQ(width((133 + 1e-4F) / 100), 133);  // as converters write a size of 133
  EXPECT_EQ(width(0.5F), 50);
}

TEST(Resize, DeclaredSizeIsBelievedWithinRounding) {
  // float32 has 1.1 a little above; this factor is a little below 1.1 so that 100 times it is 109.99999.
  ProgramBuilder builder;
  const ValueId x = builder.Input("x", {1, 1, 1, 100});
  const TensorType declared = {ElementType::Float32, {1, 1, 1, 110}, true};
  const ValueId factor = builder.Constant(Tensor::Float(1.0999998F));
  builder.Output(builder.Call("upsample_nearest_neighbor", {{"x", {x}}, {"scale_factor_width", {factor}}}, declared));
  const Program program = Specialize(builder.program, {{1, 1, 1, 100}});
  EXPECT_EQ(program.at(program.outputs.at(0)).type.shape, (Shape{1, 1, 1, 110}));
  EXPECT_EQ(Interpret(program, Ramp({1, 1, 1, 100})).shape(), (Shape{1, 1, 1, 110}));
}

TEST(Resize, ResizeTakesTheRightmostSizesAndRoundsToTheNearest) {
  const TestOperands nearest = {{"x", Tensor::Floats({1, 2}, {0, 1})},
                                {"shape", {7, 3}},
                                {"resized_dims", Tensor::Ints({}, {1}, ElementType::UInt32)},
                                {"interpolation_mode", "NEAREST_NEIGHBOR"}};
  const Tensor result = EvaluateOne("resize", nearest, 7);
  EXPECT_EQ(result.shape(), (Shape{1, 3}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(0, 1, 1));
}

TEST(Resize, ResizeInheritsWhereTheSizeIsZero) {
  const TestOperands operands = {{"x", Tensor::Floats({2, 2}, {0, 1, 2, 3})},
                                 {"shape", {0, 3}},
                                 {"resized_dims", 2},
                                 {"sampling_mode", "ALIGN_CORNERS"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("resize", operands, 7)), ElementsAre(0, .5F, 1, 2, 2.5F, 3));
}

TEST(Resize, NeighbourThatDoesNotCountDoesNotLeak) {
  const float infinity = std::numeric_limits<float>::infinity();
  EXPECT_THAT(BilinearTo(2, "STRICT_ALIGN_CORNERS", {1, infinity}), ElementsAre(1, infinity));
}

TEST(Resize, RefusesImpossibleSizes) {
  const TensorType x = FloatType({1, 1, 4, 4});
  const auto upsample = [&x](TestOperand factor) {
    return RefusalOf("upsample_bilinear", {{"x", x}, {"scale_factor_width", std::move(factor)}});
  };
  EXPECT_THAT(upsample(0.1F), HasSubstr("scale_factor_width 0.1"));
  EXPECT_THAT(upsample(-2), HasSubstr("makes -8.0"));
  EXPECT_THAT(upsample(std::numeric_limits<float>::quiet_NaN()), HasSubstr("nan"));
  EXPECT_THAT(upsample(std::numeric_limits<float>::infinity()), HasSubstr("inf"));
  EXPECT_EQ(RefusalOf("resize_nearest_neighbor", {{"x", x}, {"target_size_height", 0}, {"target_size_width", 1}}),
            "resize_nearest_neighbor 'op': target_size_height is 0, expected at least 1");
  EXPECT_THAT(RefusalOf("resize_bilinear", {{"x", x}, {"sampling_mode", "HALF"}}),
              HasSubstr("sampling_mode is 'HALF', expected DEFAULT"));
  EXPECT_THAT(RefusalOf("upsample_bilinear", {{"x", x}, {"half_pixel_centers", true}}),
              HasSubstr("exclude each other"));
  EXPECT_THAT(RefusalOf("upsample_bilinear", {{"x", IntType({1, 1, 4, 4})}}), HasSubstr("expected floats"));
  EXPECT_EQ(RefusalOf("resize", {{"x", x}, {"shape", {2}}, {"resized_dims", 2}}),
            "resize 'op': resized_dims is 2, but x has rank 4 and shape has 1 entries");
  EXPECT_EQ(RefusalOf("resize", {{"x", x}, {"shape", {-1}}, {"resized_dims", 1}}),
            "resize 'op': shape has an entry -1, expected at least 0");
  EXPECT_EQ(RefusalOf("resize", {{"x", x}, {"shape", IntType({1})}, {"resized_dims", 1}}),
            "resize 'op': parameter 'shape' must be a constant");
}

}  // namespace
}  // namespace ulmora::engine::program
