#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// x[begin:end:stride] of 0 to 5.
std::vector<float> SliceLine(int begin, int end, int stride = 1, bool openBegin = false, bool openEnd = false) {
  return FloatsOf(EvaluateOne("slice_by_index", {{"x", Ramp({6})},
                                                 {"begin", {begin}},
                                                 {"end", {end}},
                                                 {"stride", {stride}},
                                                 {"begin_mask", Tensor::Bools({1}, {openBegin})},
                                                 {"end_mask", Tensor::Bools({1}, {openEnd})}}));
}

TEST(TensorSlice, BoundsCountFromBothEndsAndAreClamped) {
  EXPECT_THAT(SliceLine(1, 4), ElementsAre(1, 2, 3));
  EXPECT_THAT(SliceLine(-3, -1), ElementsAre(3, 4));
  EXPECT_THAT(SliceLine(-100, 2), ElementsAre(0, 1));
  EXPECT_THAT(SliceLine(4, INT32_MAX), ElementsAre(4, 5));
  EXPECT_THAT(SliceLine(4, 2), IsEmpty());
  EXPECT_THAT(SliceLine(100, 200), IsEmpty());
}

TEST(TensorSlice, Strides) {
  EXPECT_THAT(SliceLine(0, 6, 2), ElementsAre(0, 2, 4));
  EXPECT_THAT(SliceLine(1, 6, 4), ElementsAre(1, 5));
  EXPECT_THAT(SliceLine(0, 6, INT32_MAX), ElementsAre(0));
  EXPECT_THAT(SliceLine(4, 1, -1), ElementsAre(4, 3, 2));
  EXPECT_THAT(SliceLine(5, -100, -2), ElementsAre(5, 3, 1));
  EXPECT_THAT(SliceLine(100, 3, -1), ElementsAre(5, 4));
  EXPECT_THAT(SliceLine(0, 6, INT32_MIN), IsEmpty());
  EXPECT_THAT(SliceLine(5, 0, INT32_MIN), ElementsAre(5));
  // An end of -1 is the last element, so this stops before it starts.
  EXPECT_THAT(SliceLine(5, -1, -1), IsEmpty());
}

TEST(TensorSlice, OpenBoundsFollowTheDirection) {
  EXPECT_THAT(SliceLine(3, 4, 1, true, false), ElementsAre(0, 1, 2, 3));
  EXPECT_THAT(SliceLine(3, 4, 1, false, true), ElementsAre(3, 4, 5));
  EXPECT_THAT(SliceLine(3, 3, -1, true, false), ElementsAre(5, 4));
  EXPECT_THAT(SliceLine(2, 9, -1, false, true), ElementsAre(2, 1, 0));
  EXPECT_THAT(SliceLine(0, 0, -1, true, true), ElementsAre(5, 4, 3, 2, 1, 0));
}

TEST(TensorSlice, SqueezedDimensionsGo) {
  const TestOperands operands = {{"x", Ramp({2, 3, 2})},
                                 {"begin", {0, -1, 0}},
                                 {"end", {2, 0, 1}},
                                 {"squeeze_mask", Tensor::Bools({3}, {0, 1, 0})}};
  const Tensor result = EvaluateOne("slice_by_index", operands);
  EXPECT_EQ(result.shape(), (Shape{2, 1}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(4, 10));
}

TEST(TensorSlice, SliceByIndexRefusals) {
  const auto refusal = [](const TestOperands& changed) {
    TestOperands operands = {{"x", FloatType({2, 3})}, {"begin", {0, 0}}, {"end", {1, 1}}};
    for (const auto& [name, operand] : changed) operands.insert_or_assign(name, operand);
    return RefusalOf("slice_by_index", operands);
  };
  EXPECT_EQ(refusal({{"begin", {0}}}), "slice_by_index 'op': begin has 1 entries, but x has shape [2, 3]");
  EXPECT_EQ(refusal({{"stride", {1, 0}}}), "slice_by_index 'op': stride of dimension 1 is 0");
  EXPECT_THAT(refusal({{"end_mask", Tensor::Bools({1}, {1})}}), HasSubstr("end_mask has 1 entries"));
  EXPECT_EQ(refusal({{"begin", {0, 3}}, {"squeeze_mask", Tensor::Bools({2}, {0, 1})}}),
            "slice_by_index 'op': index 3 is outside dimension 1 of x [2, 3]");
  EXPECT_EQ(refusal({{"begin", IntType({2})}}), "slice_by_index 'op': parameter 'begin' must be a constant");
}

TEST(TensorSlice, SliceBySizeReachesTheEndWithMinusOne) {
  const TestOperands operands = {{"x", Ramp({2, 4})}, {"begin", {1, -3}}, {"size", {1, -1}}};
  const Tensor result = EvaluateOne("slice_by_size", operands);
  EXPECT_EQ(result.shape(), (Shape{1, 3}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(5, 6, 7));
  EXPECT_EQ(RefusalOf("slice_by_size", {{"x", Ramp({4})}, {"begin", {2}}, {"size", {3}}}),
            "slice_by_size 'op': begin 2 and size 3 do not lie in dimension 0 of x [4]");
  EXPECT_THAT(RefusalOf("slice_by_size", {{"x", Ramp({4})}, {"begin", {-5}}, {"size", {1}}}), HasSubstr("begin -5"));
  EXPECT_THAT(RefusalOf("slice_by_size", {{"x", Ramp({4})}, {"begin", {0}}, {"size", {-2}}}), HasSubstr("size -2"));
  EXPECT_THAT(RefusalOf("slice_by_size", {{"x", Ramp({4})}, {"begin", {5}}, {"size", {-1}}}), HasSubstr("begin 5"));
}

TEST(TensorSlice, ReverseTurnsTheGivenAxesOrAll) {
  EXPECT_THAT(FloatsOf(EvaluateOne("reverse", {{"x", Ramp({2, 3})}, {"axes", {-1}}})), ElementsAre(2, 1, 0, 5, 4, 3));
  EXPECT_THAT(FloatsOf(EvaluateOne("reverse", {{"x", Ramp({2, 3})}})), ElementsAre(5, 4, 3, 2, 1, 0));
  EXPECT_THAT(RefusalOf("reverse", {{"x", Ramp({2})}, {"axes", {1}}}), HasSubstr("axis 1 is outside"));
}

TEST(TensorSlice, CropRemovesBorders) {
  const TestOperands operands = {{"x", Ramp({1, 1, 3, 4})}, {"crop_height", {1, 0}}, {"crop_width", {0, 2}}};
  const Tensor result = EvaluateOne("crop", operands);
  EXPECT_EQ(result.shape(), (Shape{1, 1, 2, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(4, 5, 8, 9));
  EXPECT_EQ(RefusalOf("crop", {{"x", FloatType({1, 1, 3, 4})}, {"crop_height", {1, 2}}, {"crop_width", {0, 0}}}),
            "crop 'op': crop_height [1, 2] leaves nothing of 3 elements");
  EXPECT_THAT(RefusalOf("crop", {{"x", FloatType({3, 4})}, {"crop_height", {0, 0}}, {"crop_width", {0, 0}}}),
              HasSubstr("expected rank 4"));
  EXPECT_THAT(RefusalOf("crop", {{"x", FloatType({1, 1, 3, 4})}, {"crop_height", {-1, 0}}, {"crop_width", {0, 0}}}),
              HasSubstr("crop_height has an entry -1"));
}

}  // namespace
}  // namespace ulmora::engine::program
