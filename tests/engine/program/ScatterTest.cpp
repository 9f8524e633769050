#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::FloatEq;
using testing::HasSubstr;

/// 1, 2, 3 with 10, 20, 30 scattered to places 2, 0, 2.
std::vector<float> ScatterLine(const char* mode) {
  return FloatsOf(EvaluateOne(
      "scatter",
      {{"data", Ramp({3}, 1.0F)}, {"indices", {2, 0, 2}}, {"updates", Ramp({3}, 10.0F, 10.0F)}, {"mode", mode}}));
}

TEST(Scatter, EveryUpdateIsCombinedInTurn) {
  EXPECT_THAT(ScatterLine("update"), ElementsAre(20, 2, 30));
  EXPECT_THAT(ScatterLine("add"), ElementsAre(21, 2, 43));
  EXPECT_THAT(ScatterLine("sub"), ElementsAre(-19, 2, -37));
  EXPECT_THAT(ScatterLine("mul"), ElementsAre(20, 2, 900));
  EXPECT_THAT(ScatterLine("div"), ElementsAre(FloatEq(0.05F), 2, FloatEq(0.01F)));
  EXPECT_THAT(ScatterLine("max"), ElementsAre(20, 2, 30));
  EXPECT_THAT(ScatterLine("min"), ElementsAre(1, 2, 3));
  const TestOperands defaults = {{"data", Ramp({2})}, {"indices", {1}}, {"updates", Ramp({1}, 5.0F)}};
  EXPECT_THAT(FloatsOf(EvaluateOne("scatter", defaults)), ElementsAre(0, 6));
}

TEST(Scatter, IndicesReplaceTheAxisOfTheData) {
  const TestOperands operands = {{"data", Ramp({2, 3}, 0.0F, 0.0F)},
                                 {"indices", Tensor::Ints({1, 2}, {2, 0})},
                                 {"updates", Ramp({2, 1, 2}, 1.0F)},
                                 {"axis", -1},
                                 {"mode", "update"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("scatter", operands)), ElementsAre(2, 0, 1, 4, 0, 3));
}

TEST(Scatter, IntegersDivideTowardsZeroAndStayInTheirRange) {
  const auto scatter = [](int data, int update, const char* mode) {
    return IntsOf(EvaluateOne("scatter", {{"data", {data}}, {"indices", {0}}, {"updates", {update}}, {"mode", mode}}));
  };
  EXPECT_THAT(scatter(-7, 2, "div"), ElementsAre(-3));
  EXPECT_THAT(scatter(7, 0, "div"), ElementsAre(0));
  EXPECT_THAT(scatter(INT32_MAX, 2, "mul"), ElementsAre(INT32_MAX));
}

TEST(Scatter, NegativeIndicesAreOutOfBoundsFromOpset7) {
  const TestOperands operands = {{"data", Ramp({3})}, {"indices", {-1}}, {"updates", Ramp({1}, 5.0F)}};
  EXPECT_THAT(FloatsOf(EvaluateOne("scatter", operands, 6)), ElementsAre(0, 1, 7));
  EXPECT_THROW(static_cast<void>(EvaluateOne("scatter", operands, 7)), std::runtime_error);
}

TEST(Scatter, Refusals) {
  const Tensor line = Ramp({3});
  EXPECT_EQ(RefusalOf("scatter", {{"data", line}, {"indices", {0, 1}}, {"updates", line}}),
            "scatter 'op': updates has shape [3], expected [2]");
  EXPECT_EQ(RefusalOf("scatter", {{"data", line}, {"indices", {0}}, {"updates", {1}}}),
            "scatter 'op': updates is of type int32, but data of type float32");
  EXPECT_THAT(RefusalOf("scatter", {{"data", line}, {"indices", {0}}, {"updates", Ramp({1})}, {"mode", "replace"}}),
              HasSubstr("mode is 'replace', expected update, add, sub, mul, div, max or min"));
}

TEST(Scatter, AlongAnAxisEachPlaceHasItsOwnIndex) {
  const TestOperands operands = {{"data", Ramp({3, 2}, 0.0F, 0.0F)},
                                 {"indices", Tensor::Ints({2, 2}, {2, 0, 2, 1})},
                                 {"updates", Ramp({2, 2}, 1.0F)}};
  EXPECT_THAT(FloatsOf(EvaluateOne("scatter_along_axis", operands)), ElementsAre(0, 2, 0, 4, 4, 0));
  EXPECT_THAT(RefusalOf("scatter_along_axis",
                        {{"data", Ramp({3, 2})}, {"indices", Tensor::Ints({1, 1}, {0})}, {"updates", Ramp({1, 1})}}),
              HasSubstr("indices has shape [1, 1], but data has shape [3, 2]; only axis 0 may differ"));
}

TEST(Scatter, PositionsNameElementsOrWholeRows) {
  const TestOperands elements = {{"data", Ramp({2, 2}, 0.0F, 0.0F)},
                                 {"indices", Tensor::Ints({2, 2}, {0, 1, 1, 0})},
                                 {"updates", Ramp({2}, 5.0F)},
                                 {"mode", "update"}};
  EXPECT_THAT(FloatsOf(EvaluateOne("scatter_nd", elements)), ElementsAre(0, 5, 6, 0));
  const TestOperands rows = {
      {"data", Ramp({2, 2})}, {"indices", Tensor::Ints({1, 1}, {1})}, {"updates", Ramp({1, 2}, 10.0F)}};
  EXPECT_THAT(FloatsOf(EvaluateOne("scatter_nd", rows)), ElementsAre(0, 1, 12, 14));
  EXPECT_EQ(
      RefusalOf("scatter_nd", {{"data", Ramp({2})}, {"indices", Tensor::Ints({1, 2}, {0, 0})}, {"updates", Ramp({1})}}),
      "scatter_nd 'op': indices has shape [1, 2], but data has shape [2], which has no 2 dimensions to index");
}

TEST(GatherNd, ReadsWhatPositionsName) {
  const Tensor x = Ramp({2, 3, 2});
  const Tensor pairs = EvaluateOne("gather_nd", {{"x", x}, {"indices", Tensor::Ints({2, 2}, {0, 2, 1, 0})}});
  EXPECT_EQ(pairs.shape(), (Shape{2, 2}));
  EXPECT_THAT(FloatsOf(pairs), ElementsAre(4, 5, 6, 7));
  const TestOperands batched = {{"x", x}, {"indices", Tensor::Ints({2, 1, 2}, {0, 1, 2, 0})}, {"batch_dims", 1}};
  EXPECT_THAT(FloatsOf(EvaluateOne("gather_nd", batched)), ElementsAre(1, 10));
  const TestOperands deep = {{"x", x}, {"indices", Tensor::Ints({3, 1}, {0, 0, 0})}, {"batch_dims", 1}};
  EXPECT_THAT(RefusalOf("gather_nd", deep), HasSubstr("batch_dims is 1, but x has shape [2, 3, 2] and indices [3, 1]"));
  EXPECT_THAT(RefusalOf("gather_nd", {{"x", x}, {"indices", Tensor::Int(0)}}), HasSubstr("expected rank 1 or more"));
}

TEST(SliceUpdate, ReplacesWhatTheSliceWouldRead) {
  const TestOperands rows = {{"x", Ramp({3, 2}, 0.0F, 0.0F)},
                             {"update", Ramp({2, 1}, 1.0F)},
                             {"begin", {0, 1}},
                             {"end", {3, 2}},
                             {"stride", {2, 1}}};
  EXPECT_THAT(FloatsOf(EvaluateOne("slice_update", rows, 8)), ElementsAre(0, 1, 0, 0, 0, 2));
  const TestOperands squeezed = {{"x", Ramp({2, 2})},
                                 {"update", Ramp({2}, 8.0F)},
                                 {"begin", {-1, 0}},
                                 {"end", {0, 0}},
                                 {"end_mask", Tensor::Bools({2}, {0, 1})},
                                 {"squeeze_mask", Tensor::Bools({2}, {1, 0})}};
  EXPECT_THAT(FloatsOf(EvaluateOne("slice_update", squeezed, 8)), ElementsAre(0, 1, 8, 9));
  EXPECT_EQ(RefusalOf("slice_update", {{"x", Ramp({3})}, {"update", Ramp({3})}, {"begin", {0}}, {"end", {2}}}, 8),
            "slice_update 'op': update has shape [3], expected [2]");
}

}  // namespace
}  // namespace ulmora::engine::program
