#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Tensors = std::vector<Tensor>;

TEST(TensorJoin, ConcatAlongAnyAxis) {
  const Tensors values = {Ramp({2, 1}), Ramp({2, 2}, 10.0F)};
  const Tensor columns = EvaluateOne("concat", {{"values", values}, {"axis", -1}});
  EXPECT_EQ(columns.shape(), (Shape{2, 3}));
  EXPECT_THAT(FloatsOf(columns), ElementsAre(0, 10, 11, 1, 12, 13));
  const Tensors rows = {Ramp({1, 2}), Ramp({2, 2}, 10.0F)};
  EXPECT_THAT(FloatsOf(EvaluateOne("concat", {{"values", rows}, {"axis", 0}})), ElementsAre(0, 1, 10, 11, 12, 13));
  const Tensors ints = {Tensor::IntVector({1, 2}), Tensor::IntVector({3})};
  EXPECT_THAT(IntsOf(EvaluateOne("concat", {{"values", ints}, {"axis", 0}})), ElementsAre(1, 2, 3));
  const Tensors flags = {Tensor::Bools({1}, {1}), Tensor::Bools({1}, {0})};
  EXPECT_THAT(BoolsOf(EvaluateOne("concat", {{"values", flags}, {"axis", 0}})), ElementsAre(true, false));
}

TEST(TensorJoin, ConcatOfScalarsIsAVector) {
  const Tensors sizes = {Tensor::Int(1), Tensor::Int(3), Tensor::Int(40)};
  const Tensor shape = EvaluateOne("concat", {{"values", sizes}, {"axis", 0}});
  EXPECT_EQ(shape.shape(), (Shape{3}));
  EXPECT_THAT(IntsOf(shape), ElementsAre(1, 3, 40));
  const Tensors turns = {Tensor::Float(2.0F), Tensor::Float(5.0F)};
  EXPECT_THAT(FloatsOf(EvaluateOne("concat", {{"values", turns}, {"axis", -1}, {"interleave", true}})),
              ElementsAre(2, 5));
  const Tensors mixed = {Tensor::Int(1), Tensor::IntVector({1})};
  EXPECT_EQ(RefusalOf("concat", {{"values", mixed}, {"axis", 0}}),
            "concat 'op': values[1] has shape [1], but values[0] has shape []; only axis 0 may differ");
}

TEST(TensorJoin, InterleavedConcatTakesTurns) {
  const Tensors values = {Ramp({1, 2, 2}), Ramp({1, 2, 2}, 10.0F)};
  const Tensor result = EvaluateOne("concat", {{"values", values}, {"axis", 1}, {"interleave", true}});
  EXPECT_EQ(result.shape(), (Shape{1, 4, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(0, 1, 10, 11, 2, 3, 12, 13));
}

TEST(TensorJoin, ConcatRefusesOtherShapes) {
  const Tensors values = {Ramp({2, 1}), Ramp({3, 1})};
  EXPECT_EQ(RefusalOf("concat", {{"values", values}, {"axis", 1}}),
            "concat 'op': values[1] has shape [3, 1], but values[0] has shape [2, 1]; only axis 1 may differ");
  EXPECT_EQ(RefusalOf("concat", {{"values", values}, {"axis", 0}, {"interleave", true}}),
            "concat 'op': values[1] has shape [3, 1], but values[0] has shape [2, 1]; interleaved, all must be equal");
  EXPECT_THAT(RefusalOf("concat", {{"values", Tensors{Ramp({2}), Ramp({2, 1})}}, {"axis", 0}}), HasSubstr("values[1]"));
  EXPECT_THAT(RefusalOf("concat", {{"values", Tensors{Ramp({2})}}, {"axis", 1}}), HasSubstr("axis 1 is outside"));
  const Tensors mixed = {Ramp({2}), Tensor::IntVector({1})};
  EXPECT_EQ(RefusalOf("concat", {{"values", mixed}, {"axis", 0}}),
            "concat 'op': values[1] is of type int32, but values[0] of type float32");
}

TEST(TensorJoin, StackMakesADimension) {
  const Tensors values = {Ramp({2}), Ramp({2}, 10.0F)};
  const Tensor first = EvaluateOne("stack", {{"values", values}, {"axis", 0}});
  EXPECT_EQ(first.shape(), (Shape{2, 2}));
  EXPECT_THAT(FloatsOf(first), ElementsAre(0, 1, 10, 11));
  EXPECT_THAT(FloatsOf(EvaluateOne("stack", {{"values", values}, {"axis", -1}})), ElementsAre(0, 10, 1, 11));
  EXPECT_EQ(InferShape("stack", {{"values", Tensors{Ramp({2, 3}), Ramp({2, 3})}}, {"axis", 1}}), (Shape{2, 2, 3}));
  EXPECT_THAT(RefusalOf("stack", {{"values", Tensors{Ramp({2}), Ramp({3})}}, {"axis", 0}}), HasSubstr("values[1]"));
}

TEST(TensorJoin, SplitIntoEqualOrGivenParts) {
  const Tensor x = Ramp({2, 4});
  const Tensors halves = EvaluateOp("split", {{"x", x}, {"num_splits", 2}, {"axis", 1}});
  ASSERT_EQ(halves.size(), 2U);
  EXPECT_THAT(FloatsOf(halves[0]), ElementsAre(0, 1, 4, 5));
  EXPECT_THAT(FloatsOf(halves[1]), ElementsAre(2, 3, 6, 7));
  const Tensors parts = EvaluateOp("split", {{"x", x}, {"split_sizes", {1, 3}}, {"num_splits", 2}, {"axis", -1}});
  ASSERT_EQ(parts.size(), 2U);
  EXPECT_THAT(FloatsOf(parts[0]), ElementsAre(0, 4));
  EXPECT_THAT(FloatsOf(parts[1]), ElementsAre(1, 2, 3, 5, 6, 7));
}

TEST(TensorJoin, SplitRefusesWhatDoesNotAddUp) {
  const auto refusal = [](TestOperands operands) {
    operands.insert({"x", FloatType({2, 4})});
    operands.insert({"axis", 1});
    return RefusalOf("split", operands);
  };
  EXPECT_EQ(refusal({}), "split 'op': neither num_splits nor split_sizes is given");
  EXPECT_EQ(refusal({{"num_splits", 3}}), "split 'op': axis 1 of 4 elements cannot be split into 3 equal parts");
  EXPECT_THAT(refusal({{"num_splits", 0}}), HasSubstr("into 0 equal parts"));
  EXPECT_EQ(refusal({{"split_sizes", {1, 2}}}),
            "split 'op': split_sizes [1, 2] do not add up to the 4 elements of axis 1");
  EXPECT_THAT(refusal({{"split_sizes", {5, -1}}}), HasSubstr("do not add up"));
  EXPECT_EQ(refusal({{"split_sizes", {1, 3}}, {"num_splits", 3}}),
            "split 'op': num_splits is 3, but split_sizes has 2 entries");
}

TEST(TensorJoin, TileRepeats) {
  const Tensor result = EvaluateOne("tile", {{"x", Ramp({2, 2})}, {"reps", {1, 2}}});
  EXPECT_EQ(result.shape(), (Shape{2, 4}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(0, 1, 0, 1, 2, 3, 2, 3));
  EXPECT_THAT(RefusalOf("tile", {{"x", Ramp({2, 2})}, {"reps", {2}}}), HasSubstr("reps has 1 entries, expected 2"));
  EXPECT_THAT(RefusalOf("tile", {{"x", Ramp({2})}, {"reps", {0}}}), HasSubstr("reps has an entry 0"));
}

}  // namespace
}  // namespace ulmora::engine::program
