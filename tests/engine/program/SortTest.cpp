#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const Tensor kLine = Tensor::Floats({5}, {3, 1, 4, 1, 5});

TEST(Sort, TopKGivesTheLargestAndTheirPlaces) {
  const std::vector<Tensor> top = EvaluateOp("topk", {{"x", kLine}, {"k", 3}});
  EXPECT_THAT(FloatsOf(top.at(0)), ElementsAre(5, 4, 3));
  EXPECT_THAT(IntsOf(top.at(1)), ElementsAre(4, 2, 0));
  const std::vector<Tensor> low = EvaluateOp("topk", {{"x", kLine}, {"k", 2}, {"ascending", true}});
  EXPECT_THAT(FloatsOf(low.at(0)), ElementsAre(1, 1));
  EXPECT_THAT(IntsOf(low.at(1)), ElementsAre(1, 3));
  EXPECT_THAT(FloatsOf(EvaluateOne("topk", {{"x", kLine}})), ElementsAre(5));
  EXPECT_EQ(EvaluateOne("topk", {{"x", kLine}, {"k", -1}}, 7).shape(), (Shape{5}));
}

TEST(Sort, TopKAlongAnInnerAxis) {
  const Tensor x = Tensor::Ints({2, 3, 2}, {1, 9, 3, 8, 2, 7, 4, 4, 6, 5, 5, 6});
  const std::vector<Tensor> top = EvaluateOp("topk", {{"x", x}, {"k", 2}, {"axis", 1}});
  EXPECT_EQ(top.at(0).shape(), (Shape{2, 2, 2}));
  EXPECT_THAT(IntsOf(top.at(0)), ElementsAre(3, 9, 2, 8, 6, 6, 5, 5));
  EXPECT_THAT(IntsOf(top.at(1)), ElementsAre(1, 0, 2, 1, 1, 2, 2, 1));
}

TEST(Sort, TopKOptions) {
  EXPECT_EQ(EvaluateOp("topk", {{"x", kLine}, {"return_indices", false}}).size(), 1U);
  EXPECT_EQ(InferOp("topk", {{"x", kLine}, {"output_indices_dtype", "uint16"}}).at(1).element, ElementType::UInt16);
  EXPECT_EQ(RefusalOf("topk", {{"x", kLine}, {"k", 6}}), "topk 'op': k is 6, but the axis has 5 elements");
  EXPECT_THAT(RefusalOf("topk", {{"x", kLine}, {"output_indices_dtype", "int8"}}),
              HasSubstr("output_indices_dtype is 'int8', expected int32 or uint16"));
}

TEST(Sort, NotANumberCountsAsTheLargest) {
  const Tensor x = Tensor::Floats({3}, {1, std::numeric_limits<float>::quiet_NaN(), 2});
  EXPECT_THAT(IntsOf(EvaluateOne("argsort", {{"x", x}})), ElementsAre(1, 2, 0));
  EXPECT_THAT(IntsOf(EvaluateOne("argsort", {{"x", x}, {"ascending", true}})), ElementsAre(0, 2, 1));
}

TEST(Sort, ArgsortIsDescendingUnlessAsked) {
  EXPECT_THAT(IntsOf(EvaluateOne("argsort", {{"x", kLine}})), ElementsAre(4, 2, 0, 1, 3));
  EXPECT_THAT(IntsOf(EvaluateOne("argsort", {{"x", kLine}, {"ascending", true}})), ElementsAre(1, 3, 0, 2, 4));
  const Tensor columns = Tensor::Floats({2, 2}, {1, 4, 3, 2});
  EXPECT_THAT(IntsOf(EvaluateOne("argsort", {{"x", columns}, {"axis", 0}})), ElementsAre(1, 0, 0, 1));
}

TEST(Sort, OneHotMarksThePlace) {
  const Tensor last = EvaluateOne("one_hot", {{"indices", {1, 0, 7, -1}}, {"one_hot_vector_size", 2}});
  EXPECT_EQ(last.shape(), (Shape{4, 2}));
  EXPECT_THAT(IntsOf(last), ElementsAre(0, 1, 1, 0, 0, 0, 0, 0));
  const Tensor first = EvaluateOne(
      "one_hot",
      {{"indices", {1, 0}}, {"one_hot_vector_size", 3}, {"axis", 0}, {"on_value", 0.5}, {"off_value", -1.0}});
  EXPECT_EQ(first.shape(), (Shape{3, 2}));
  EXPECT_THAT(FloatsOf(first), ElementsAre(-1, 0.5, 0.5, -1, -1, -1));
  const TestOperands flags = {{"indices", {1}}, {"one_hot_vector_size", 2}, {"on_value", false}, {"off_value", true}};
  EXPECT_THAT(BoolsOf(EvaluateOne("one_hot", flags)), ElementsAre(true, false));
  EXPECT_THAT(RefusalOf("one_hot", {{"indices", {1}}, {"one_hot_vector_size", -1}}), HasSubstr("expected at least 0"));
  EXPECT_THAT(
      RefusalOf("one_hot", {{"indices", {1}}, {"one_hot_vector_size", 1}, {"on_value", 1.0}, {"off_value", true}}),
      HasSubstr("expected two single values"));
}

TEST(Sort, NonZeroListsIndices) {
  const Tensor x = Tensor::Floats({2, 2}, {0, 2, -0.0F, -3});
  const Tensor indices = EvaluateOne("non_zero", {{"x", x}});
  EXPECT_EQ(indices.shape(), (Shape{2, 2}));
  EXPECT_THAT(IntsOf(indices), ElementsAre(0, 1, 1, 1));
  EXPECT_EQ(InferShape("non_zero", {{"x", Tensor::Bools({3}, {0, 0, 0})}}), (Shape{0, 1}));
  EXPECT_THAT(RefusalOf("non_zero", {{"x", FloatType({2})}}), HasSubstr("must be a constant"));
}

TEST(Windows, SlidingWindowsOverlap) {
  const TestOperands operands = {{"x", Ramp({5})}, {"axis", 0}, {"size", 3}, {"stride", 2}};
  const Tensor windows = EvaluateOne("sliding_windows", operands);
  EXPECT_EQ(windows.shape(), (Shape{2, 3}));
  EXPECT_THAT(FloatsOf(windows), ElementsAre(0, 1, 2, 2, 3, 4));
  EXPECT_EQ(InferShape("sliding_windows", {{"x", Ramp({2, 5, 3})}, {"axis", -2}, {"size", 5}}), (Shape{2, 1, 5, 3}));
  EXPECT_THAT(RefusalOf("sliding_windows", {{"x", Ramp({5})}, {"axis", 0}, {"size", 6}}),
              HasSubstr("size is 6 and stride 1, but the axis has 5 elements"));
}

TEST(Windows, ReverseSequenceTurnsTheBeginning) {
  const TestOperands operands = {{"x", Ramp({2, 4})}, {"lengths", {3, 1}}, {"seq_axis", 1}};
  EXPECT_THAT(FloatsOf(EvaluateOne("reverse_sequence", operands)), ElementsAre(2, 1, 0, 3, 4, 5, 6, 7));
  EXPECT_THAT(RefusalOf("reverse_sequence", {{"x", Ramp({2, 4})}, {"lengths", {1, 1}}}), HasSubstr("are the same"));
  EXPECT_THAT(RefusalOf("reverse_sequence", {{"x", Ramp({2, 4})}, {"lengths", {1}}, {"seq_axis", 1}}),
              HasSubstr("lengths has shape [1], expected [2]"));
}

}  // namespace
}  // namespace ulmora::engine::program
