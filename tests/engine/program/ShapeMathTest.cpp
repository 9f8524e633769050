#include "engine/program/ShapeMath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

TEST(ShapeMath, AxesCountFromBothEnds) {
  EXPECT_EQ(NormalizeAxis(0, 3), 0);
  EXPECT_EQ(NormalizeAxis(-1, 3), 2);
  EXPECT_EQ(NormalizeAxis(-3, 3), 0);
  EXPECT_FALSE(NormalizeAxis(3, 3));
  EXPECT_FALSE(NormalizeAxis(-4, 3));
  EXPECT_FALSE(NormalizeAxis(0, 0));
}

TEST(ShapeMath, BroadcastFollowsNumpy) {
  EXPECT_EQ(Broadcast({2, 1, 4}, {3, 1}), (Shape{2, 3, 4}));
  EXPECT_EQ(Broadcast({}, {5}), (Shape{5}));
  EXPECT_EQ(Broadcast({1}, {0}), (Shape{0}));
  EXPECT_EQ(Broadcast({3, 1}, {2, 1, 4}), (Shape{2, 3, 4}));
  EXPECT_FALSE(Broadcast({2, 3}, {2}));
  EXPECT_FALSE(Broadcast({0}, {2}));
}

TEST(ShapeMath, StridesOfDenseAndRepeatedDimensions) {
  EXPECT_THAT(RowMajorStrides({2, 3, 4}), ElementsAre(12, 4, 1));
  EXPECT_THAT(RowMajorStrides({}), ElementsAre());
  EXPECT_THAT(BroadcastStrides({3, 1}, {2, 3, 4}), ElementsAre(0, 1, 0));
  EXPECT_EQ(Offset({1, 2, 3}, {12, 4, 1}), 23);
}

TEST(ShapeMath, NextIndexVisitsEveryElementInOrder) {
  const Shape shape = {2, 1, 3};
  const std::vector<std::int64_t> strides = RowMajorStrides(shape);
  Shape index(3, 0);
  std::int64_t expected = 0;
  do {
    EXPECT_EQ(Offset(index, strides), expected++);
  } while (NextIndex(index, shape));
  EXPECT_EQ(expected, 6);
  EXPECT_THAT(index, ElementsAre(0, 0, 0));
  Shape scalar;
  EXPECT_FALSE(NextIndex(scalar, {}));
}

TEST(ShapeMath, WindowOutputs) {
  EXPECT_EQ(WindowOutput({.input = 7, .kernel = 3, .stride = 2}), 3);
  EXPECT_EQ(WindowOutput({.input = 7, .kernel = 3, .stride = 2, .dilation = 2, .padBefore = 1}), 2);
  EXPECT_EQ(WindowOutput({.input = 2, .kernel = 3}), 0);
  EXPECT_EQ(WindowOutput({.input = 2, .kernel = 3, .stride = 5, .padAfter = 1}), 1);
}

TEST(ShapeMath, SamePaddingSplitsTheOddElement) {
  WindowAxis axis = {.input = 4, .kernel = 4};
  PadToSame(axis, false);
  EXPECT_EQ(axis, (WindowAxis{4, 4, 1, 1, 1, 2, 4}));
  PadToSame(axis, true);
  EXPECT_EQ(axis, (WindowAxis{4, 4, 1, 1, 2, 1, 4}));
  WindowAxis strided = {.input = 6, .kernel = 1, .stride = 4};
  PadToSame(strided, false);
  EXPECT_EQ(strided, (WindowAxis{6, 1, 4, 1, 0, 0, 2}));
}

}  // namespace
}  // namespace ulmora::engine::program
