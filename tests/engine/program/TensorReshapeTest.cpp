#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Shape ReshapeTo(Shape x, std::vector<std::int32_t> shape, int opset) {
  return InferShape("reshape", {{"x", FloatType(std::move(x))}, {"shape", Tensor::IntVector(std::move(shape))}}, opset);
}

std::string ReshapeRefusal(Shape x, std::vector<std::int32_t> shape, int opset) {
  return RefusalOf("reshape", {{"x", FloatType(std::move(x))}, {"shape", Tensor::IntVector(std::move(shape))}}, opset);
}

TEST(TensorReshape, ReshapeKeepsTheOrderOfElements) {
  const Tensor result = EvaluateOne("reshape", {{"x", Ramp({2, 3})}, {"shape", {3, -1}}});
  EXPECT_EQ(result.shape(), (Shape{3, 2}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(0, 1, 2, 3, 4, 5));
  EXPECT_EQ(EvaluateOne("reshape", {{"x", Tensor::Bools({2}, {1, 0})}, {"shape", {1, 2}}}).shape(), (Shape{1, 2}));
}

TEST(TensorReshape, ZeroCopiesTheSameDimensionUpToOpset6) {
  EXPECT_EQ(ReshapeTo({2, 50, 4}, {0, -1, 2}, 5), (Shape{2, 100, 2}));
  EXPECT_EQ(ReshapeTo({2, 50, 4}, {0, 0, 0}, 6), (Shape{2, 50, 4}));
  EXPECT_EQ(ReshapeRefusal({2, 50}, {1, 0, -1, 0}, 6),
            "reshape 'op': shape [1, 0, ?, 0] has a 0, but its length is not the rank of x [2, 50]");
}

TEST(TensorReshape, ZeroCopiesFromTheRightFromOpset7) {
  EXPECT_EQ(ReshapeTo({2, 50}, {1, 0, -1, 0}, 7), (Shape{1, 1, 2, 50}));
  EXPECT_EQ(ReshapeTo({2, 3, 50}, {-1, 0}, 8), (Shape{6, 50}));
}

TEST(TensorReshape, ReshapeToAScalar) {
  EXPECT_EQ(ReshapeTo({1, 1}, {}, 6), Shape{});
}

TEST(TensorReshape, ReshapeRefusesOtherCounts) {
  EXPECT_EQ(ReshapeRefusal({2, 3}, {4}, 6),
            "reshape 'op': x [2, 3] cannot be reshaped to [4], which has 4 elements, not 6");
  EXPECT_EQ(ReshapeRefusal({2, 3}, {4, -1}, 6), "reshape 'op': x [2, 3] cannot be reshaped to [4, ?]");
  EXPECT_EQ(ReshapeRefusal({2, 3}, {-1, -1}, 6), "reshape 'op': shape has more than one entry -1");
  EXPECT_EQ(ReshapeRefusal({2, 3}, {-2}, 6), "reshape 'op': shape has an entry -2, expected at least -1");
  EXPECT_THAT(ReshapeRefusal({2, 3}, {INT32_MAX, INT32_MAX, INT32_MAX}, 6), HasSubstr("reshape 'op': tensor shape"));
  EXPECT_THAT(ReshapeRefusal({1}, {1, 1, 1, 1, 1, 1, 1, 1, 1}, 6), HasSubstr("rank 9 is above the limit"));
}

TEST(TensorReshape, ReshapeLikeJoinsSlicesOfReferences) {
  const std::vector<Tensor> references = {Ramp({2, 3, 4}), Ramp({5, 6})};
  const TestOperands operands = {{"x", Ramp({6, 12})},
                                 {"ref_tensors", references},
                                 {"begins", {0, 1}},
                                 {"ends", {2, 0}},
                                 {"end_masks", Tensor::Bools({2}, {0, 1})}};
  EXPECT_THAT(RefusalOf("reshape_like", operands), HasSubstr("cannot be reshaped to [2, 3, 6]"));
  TestOperands fitting = operands;
  fitting.insert_or_assign("x", Ramp({6, 6}));
  EXPECT_EQ(EvaluateOne("reshape_like", fitting).shape(), (Shape{2, 3, 6}));
  fitting.insert_or_assign("ends", TestOperand{9, 0});
  EXPECT_THAT(RefusalOf("reshape_like", fitting), HasSubstr("dimensions 0 to 9 of ref_tensors[0] [2, 3, 4]"));
  fitting.insert_or_assign("ends", TestOperand{1});
  EXPECT_THAT(RefusalOf("reshape_like", fitting), HasSubstr("have 2, 1 and 2 entries, expected 2"));
}

TEST(TensorReshape, TransposePutsDimensionPermIAtI) {
  const Tensor result = EvaluateOne("transpose", {{"x", Ramp({2, 1, 3})}, {"perm", {-1, 0, 1}}});
  EXPECT_EQ(result.shape(), (Shape{3, 2, 1}));
  EXPECT_THAT(FloatsOf(result), ElementsAre(0, 3, 1, 4, 2, 5));
  const Tensor flags = EvaluateOne("transpose", {{"x", Tensor::Bools({1, 2}, {1, 0})}, {"perm", {1, 0}}});
  EXPECT_THAT(BoolsOf(flags), ElementsAre(true, false));
}

TEST(TensorReshape, TransposeRefusesWhatIsNoPermutation) {
  const TensorType x = FloatType({2, 3});
  EXPECT_EQ(RefusalOf("transpose", {{"x", x}, {"perm", {0, 0}}}),
            "transpose 'op': perm [0, 0] is no permutation of the 2 dimensions of x");
  EXPECT_THAT(RefusalOf("transpose", {{"x", x}, {"perm", {0}}}), HasSubstr("no permutation"));
  EXPECT_THAT(RefusalOf("transpose", {{"x", x}, {"perm", {0, 2}}}), HasSubstr("axis 2 is outside"));
}

TEST(TensorReshape, ReshapeLikeTakesListsEntryByEntry) {
  const auto ints = [](std::int32_t a, std::int32_t b) { return std::vector<Tensor>{Tensor::Int(a), Tensor::Int(b)}; };
  TestOperands operands = {{"x", Ramp({6, 20})}};
  operands.insert_or_assign("ref_tensors", std::vector<Tensor>{Ramp({2, 3, 9}), Ramp({7, 4, 5})});
  operands.insert_or_assign("begins", ints(0, 1));
  operands.insert_or_assign("ends", ints(2, 0));
  operands.insert_or_assign("end_masks", std::vector<Tensor>{Tensor::Bool(false), Tensor::Bool(true)});
  EXPECT_EQ(EvaluateOne("reshape_like", operands).shape(), (Shape{2, 3, 4, 5}));
  operands.insert_or_assign("begins", std::vector<Tensor>{Tensor::Int(0), Tensor::Float(1.0F)});
  EXPECT_EQ(RefusalOf("reshape_like", operands), "reshape_like 'op': begins is of type float32, expected integers");
  operands.insert_or_assign("begins", TestOperand(IntType({})));
  EXPECT_EQ(RefusalOf("reshape_like", operands), "reshape_like 'op': parameter 'begins' must be a constant");
}

TEST(TensorReshape, ExpandDimsCountsInTheResult) {
  const auto expand = [](std::initializer_list<std::int32_t> axes) {
    return InferShape("expand_dims", {{"x", FloatType({2, 3})}, {"axes", TestOperand(axes)}});
  };
  EXPECT_EQ(expand({0}), (Shape{1, 2, 3}));
  EXPECT_EQ(expand({-1}), (Shape{2, 3, 1}));
  EXPECT_EQ(expand({1, -1}), (Shape{2, 1, 3, 1}));
  EXPECT_THAT(RefusalOf("expand_dims", {{"x", FloatType({2})}, {"axes", {0, -3}}}), HasSubstr("listed twice"));
  EXPECT_THAT(RefusalOf("expand_dims", {{"x", FloatType({2})}, {"axes", {2}}}), HasSubstr("axis 2 is outside"));
}

TEST(TensorReshape, SqueezeDropsOnesAlone) {
  EXPECT_EQ(InferShape("squeeze", {{"x", FloatType({1, 2, 1, 3})}}), (Shape{2, 3}));
  EXPECT_EQ(InferShape("squeeze", {{"x", FloatType({1, 2, 1, 3})}, {"axes", {-2}}}), (Shape{1, 2, 3}));
  EXPECT_EQ(RefusalOf("squeeze", {{"x", FloatType({1, 2})}, {"axes", {1}}}),
            "squeeze 'op': axis 1 of x [1, 2] is not of size 1");
}

TEST(TensorReshape, FlattenJoinsBeforeAndFromTheAxis) {
  const auto flatten = [](int axis) { return InferShape("flatten2d", {{"x", FloatType({2, 3, 4})}, {"axis", axis}}); };
  EXPECT_EQ(InferShape("flatten2d", {{"x", FloatType({2, 3, 4})}}), (Shape{2, 12}));
  EXPECT_EQ(flatten(2), (Shape{6, 4}));
  EXPECT_EQ(flatten(-1), (Shape{6, 4}));
  EXPECT_EQ(flatten(0), (Shape{1, 24}));
  EXPECT_EQ(flatten(3), (Shape{24, 1}));
  EXPECT_EQ(RefusalOf("flatten2d", {{"x", FloatType({2})}, {"axis", 2}}),
            "flatten2d 'op': axis 2 is outside a tensor of rank 1");
}

}  // namespace
}  // namespace ulmora::engine::program
