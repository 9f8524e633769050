#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::vector<float> PadLine(int before, int after, const char* mode, std::vector<float> values) {
  const Shape shape = {static_cast<std::int64_t>(values.size())};
  return FloatsOf(
      EvaluateOne("pad", {{"x", Tensor::Floats(shape, std::move(values))}, {"pad", {before, after}}, {"mode", mode}}));
}

TEST(Pad, Modes) {
  EXPECT_THAT(PadLine(2, 1, "constant", {1, 2, 3}), ElementsAre(0, 0, 1, 2, 3, 0));
  EXPECT_THAT(PadLine(2, 1, "reflect", {1, 2, 3}), ElementsAre(3, 2, 1, 2, 3, 2));
  EXPECT_THAT(PadLine(2, 1, "replicate", {1, 2, 3}), ElementsAre(1, 1, 1, 2, 3, 3));
  EXPECT_THAT(PadLine(2, 5, "replicate", {7}), ElementsAre(7, 7, 7, 7, 7, 7, 7, 7));
}

TEST(Pad, BelongsToTheLastDimensionsInTheirOrder) {
  // Rows: one before. Columns: one after.
  const Tensor result =
      EvaluateOne("pad", {{"x", Ramp({1, 2, 2}, 1.0F)}, {"pad", {1, 0, 0, 1}}, {"constant_val", 9.0F}});
  EXPECT_EQ(result.shape(), (Shape{1, 3, 3}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(9, 9, 9, 1, 2, 9, 3, 4, 9));
}

TEST(Pad, ReflectsInTwoDimensions) {
  const Tensor result =
      EvaluateOne("pad", {{"x", Ramp({1, 1, 2, 2})}, {"pad", {0, 0, 0, 0, 1, 0, 0, 1}}, {"mode", "reflect"}});
  EXPECT_EQ(result.shape(), (Shape{1, 1, 3, 3}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(2, 3, 2, 0, 1, 0, 2, 3, 2));
}

TEST(Pad, NegativeAmountsOfConstantPaddingCut) {
  EXPECT_THAT(PadLine(-1, 1, "constant", {1, 2, 3}), ElementsAre(2, 3, 0));
}

TEST(Pad, FillsIntegersAndBools) {
  const Tensor ints = EvaluateOne("pad", {{"x", Tensor::IntVector({1})}, {"pad", {1, 0}}, {"constant_val", -3.0F}});
  EXPECT_THAT(IntsOf(ints), ElementsAre(-3, 1));
  const TestOperands hostile = {{"x", Tensor::IntVector({1})}, {"pad", {1, 0}}, {"constant_val", 1e30F}};
  EXPECT_THAT(IntsOf(EvaluateOne("pad", hostile)), ElementsAre(INT32_MAX, 1));
  const TestOperands flags = {{"x", Tensor::Bools({1}, {0})}, {"pad", {1, 0}}, {"constant_val", 1.0F}};
  EXPECT_THAT(BoolsOf(EvaluateOne("pad", flags)), ElementsAre(true, false));
}

TEST(Pad, Refusals) {
  const auto refusal = [](TestOperand pad, const char* mode) {
    return RefusalOf("pad", {{"x", FloatType({2, 3})}, {"pad", std::move(pad)}, {"mode", mode}});
  };
  EXPECT_EQ(refusal({0, 0, 0}, "constant"),
            "pad 'op': pad has 3 entries, expected two for each of at most 2 dimensions");
  EXPECT_THAT(refusal({0, 0, 0, 0, 0, 0}, "constant"), HasSubstr("pad has 6 entries"));
  EXPECT_EQ(refusal({0, 3}, "reflect"), "pad 'op': pad 3 of dimension 1, which has 3 elements, has too few to reflect");
  EXPECT_THAT(refusal({0, -1}, "reflect"), HasSubstr("is negative in another mode than constant"));
  EXPECT_THAT(refusal({-2, -2}, "constant"), HasSubstr("cut off more than there is"));
  EXPECT_THAT(refusal({0, 0}, "circular"), HasSubstr("mode is 'circular', expected constant, reflect or replicate"));
}

}  // namespace
}  // namespace ulmora::engine::program
