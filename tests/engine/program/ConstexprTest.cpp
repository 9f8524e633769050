#include "tests/engine/program/OpTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

using testing::ElementsAre;

Tensor Row(std::vector<float> values) {
  Shape shape = {static_cast<std::int64_t>(values.size())};
  return Tensor::Floats(std::move(shape), std::move(values));
}

Tensor Bytes(std::vector<std::int32_t> values) {
  Shape shape = {static_cast<std::int64_t>(values.size())};
  return Tensor::Ints(std::move(shape), std::move(values), ElementType::UInt8);
}

Tensor Mask(Shape shape, std::vector<std::int32_t> bits) {
  return Tensor::Ints(std::move(shape), std::move(bits), ElementType::UInt1);
}

TEST(AffineDequantize, ScalesAlongTheAxis) {
  const Tensor data = Tensor::Ints({2, 3}, {0, 1, 2, 253, 254, 255}, ElementType::UInt8);
  const auto with = [&data](const TestOperand& zeroPoint, const TestOperand& scale, int axis) {
    return FloatsOf(
        EvaluateOne("constexpr_affine_dequantize",
                    {{"quantized_data", data}, {"zero_point", zeroPoint}, {"scale", scale}, {"axis", axis}}));
  };
  EXPECT_THAT(with(1, 0.5F, 0), ElementsAre(-0.5F, 0, 0.5F, 126, 126.5F, 127));
  EXPECT_THAT(with(Bytes({1, 253}), Row({1.0F, 2.0F}), 0), ElementsAre(-1, 0, 1, 0, 2, 4));
  EXPECT_THAT(with(Row({0.5F, 1.0F, 2.0F}), 2.0F, -1), ElementsAre(-1, 0, 0, 505, 506, 506));
}

TEST(AffineDequantize, Refusals) {
  const auto refusal = [](const TestOperand& scale, int axis) {
    return RefusalOf("constexpr_affine_dequantize", {{"quantized_data", TensorType{ElementType::Int8, {2, 3}, true}},
                                                     {"zero_point", 0},
                                                     {"scale", scale},
                                                     {"axis", axis}});
  };
  EXPECT_EQ(refusal(Row({1, 2}), 1), "constexpr_affine_dequantize 'op': scale has shape [2], expected [3]");
  EXPECT_EQ(refusal(Row({1, 2}), 2), "constexpr_affine_dequantize 'op': axis 2 is outside a tensor of rank 2");
  EXPECT_EQ(refusal(1, 0), "constexpr_affine_dequantize 'op': scale is of type int32, expected floats");
}

TEST(ConstexprCast, ChangesTheFloatType) {
  const Tensor half = Tensor::Floats({2}, {1, 2}, ElementType::Float16);
  EXPECT_EQ(EvaluateOne("constexpr_cast", {{"source_val", half}, {"output_dtype", "fp32"}}).type(), FloatType({2}));
  EXPECT_EQ(RefusalOf("constexpr_cast", {{"source_val", half}, {"output_dtype", "int8"}}),
            "constexpr_cast 'op': output_dtype is 'int8', expected fp32 or fp16");
}

TEST(BlockwiseShiftScale, UsesTheScaleOfEachBlock) {
  const Tensor data = Tensor::Ints({2, 4}, {1, 2, 3, 4, 5, 6, 7, -8}, ElementType::Int4);
  const Tensor scale = Tensor::Floats({1, 2}, {1, 10});
  const TestOperands base = {{"data", data}, {"scale", scale}};
  EXPECT_THAT(FloatsOf(EvaluateOne("constexpr_blockwise_shift_scale", base)), ElementsAre(1, 2, 30, 40, 5, 6, 70, -80));
  TestOperands shifted = base;
  shifted.insert({"offset", Tensor::Ints({1, 2}, {1, 2}, ElementType::Int4)});
  EXPECT_THAT(FloatsOf(EvaluateOne("constexpr_blockwise_shift_scale", shifted)),
              ElementsAre(0, 1, 10, 20, 4, 5, 50, -100));
  EXPECT_EQ(
      RefusalOf("constexpr_blockwise_shift_scale", {{"data", data}, {"scale", Ramp({1, 3})}}),
      "constexpr_blockwise_shift_scale 'op': scale has blocks [1, 3], which do not divide a tensor of shape [2, 4]");
  EXPECT_EQ(RefusalOf("constexpr_blockwise_shift_scale", {{"data", data}, {"scale", Ramp({2})}}),
            "constexpr_blockwise_shift_scale 'op': scale has blocks [2], which do not divide a tensor of shape [2, 4]");
  EXPECT_EQ(RefusalOf("constexpr_blockwise_shift_scale", {{"data", data}, {"scale", scale}, {"offset", 1.0F}}),
            "constexpr_blockwise_shift_scale 'op': offset has shape [], expected [1, 2]");
}

TEST(LutToDense, UnpacksBytesLowestBitsFirst) {
  const Tensor four = Row({10, 11, 12, 13});
  // 2-bit numbers 0, 3, 2, 1, 3: 0b01101100 and 0b......11
  const TestOperands operands = {{"indices", Bytes({0x6C, 0x03})}, {"lut", four}, {"shape", {5}}};
  EXPECT_THAT(FloatsOf(EvaluateOne("constexpr_lut_to_dense", operands)), ElementsAre(10, 13, 12, 11, 13));
  // 6-bit numbers 1, 63, 32 straddle bytes: 0b11000001, 0b00001111, 0b000010..
  const Tensor sixtyFour = Ramp({64});
  EXPECT_THAT(FloatsOf(EvaluateOne("constexpr_lut_to_dense",
                                   {{"indices", Bytes({0xC1, 0x0F, 0x02})}, {"lut", sixtyFour}, {"shape", {3, 1}}})),
              ElementsAre(1, 63, 32));
}

TEST(LutToDense, PackedRefusals) {
  EXPECT_EQ(RefusalOf("constexpr_lut_to_dense", {{"indices", Bytes({1})}, {"lut", Ramp({3})}, {"shape", {2}}}),
            "constexpr_lut_to_dense 'op': lut has 3 entries, expected 2, 4, 16, 64 or 256");
  EXPECT_EQ(RefusalOf("constexpr_lut_to_dense", {{"indices", Bytes({1})}, {"lut", Ramp({4})}, {"shape", {5}}}),
            "constexpr_lut_to_dense 'op': indices has shape [1], expected [2]");
}

TEST(LutToDense, HasTablesForBlocks) {
  const Tensor indices = Tensor::Ints({6, 2}, {2, 3, 3, 0, 1, 0, 3, 0, 2, 1, 0, 3}, ElementType::UInt2);
  const Tensor lut = Tensor::Floats({2, 1, 4, 1}, {1, 5, 9, 13, 2, 10, 18, 26}, ElementType::Float16);
  const Tensor dense = EvaluateOne("constexpr_lut_to_dense", {{"indices", indices}, {"lut", lut}}, 8);
  EXPECT_EQ(dense.type(), (TensorType{ElementType::Float16, {6, 2}, true}));
  EXPECT_THAT(FloatsOf(dense), ElementsAre(9, 13, 13, 1, 5, 1, 26, 2, 18, 10, 2, 26));
}

TEST(LutToDense, EntriesMayBeVectors) {
  const Tensor indices = Tensor::Ints({2, 2}, {0, 1, 1, 0}, ElementType::UInt1);
  const Tensor lut = Tensor::Ints({1, 1, 2, 2}, {1, 2, 3, 4}, ElementType::Int8);
  const auto along = [&](int axis) {
    return EvaluateOne("constexpr_lut_to_dense", {{"indices", indices}, {"lut", lut}, {"vector_axis", axis}}, 8);
  };
  EXPECT_EQ(along(0).shape(), (Shape{4, 2}));
  EXPECT_THAT(IntsOf(along(0)), ElementsAre(1, 3, 2, 4, 3, 1, 4, 2));
  EXPECT_EQ(along(-1).shape(), (Shape{2, 4}));
  EXPECT_THAT(IntsOf(along(-1)), ElementsAre(1, 2, 3, 4, 3, 4, 1, 2));
  EXPECT_EQ(RefusalOf("constexpr_lut_to_dense", {{"indices", indices}, {"lut", lut}}, 8),
            "constexpr_lut_to_dense 'op': vector_axis is missing for vectors of 2");
  EXPECT_EQ(RefusalOf("constexpr_lut_to_dense", {{"indices", indices}, {"lut", Ramp({2, 2})}}, 8),
            "constexpr_lut_to_dense 'op': lut has shape [2, 2], expected rank 4");
}

TEST(LutToDense, RefusesIndicesBeyondTheTable) {
  const Tensor indices = Tensor::Ints({2}, {0, 7}, ElementType::UInt8);
  EXPECT_ANY_THROW(
      static_cast<void>(EvaluateOne("constexpr_lut_to_dense", {{"indices", indices}, {"lut", Ramp({1, 4, 1})}}, 8)));
}

TEST(SparseToDense, BothForms) {
  const Tensor data = Row({5, 6, 7});
  const TestOperands packed = {{"nonzero_data", data}, {"mask", Bytes({0x82, 0x01})}, {"shape", {3, 3}}};
  EXPECT_THAT(FloatsOf(EvaluateOne("constexpr_sparse_to_dense", packed)), ElementsAre(0, 5, 0, 0, 0, 0, 0, 6, 7));
  const TestOperands typed = {{"nonzero_data", data}, {"mask", Mask({2, 2}, {1, 0, 1, 1})}};
  EXPECT_THAT(FloatsOf(EvaluateOne("constexpr_sparse_to_dense", typed, 8)), ElementsAre(5, 0, 6, 7));
  const TestOperands tooFewOnes = {{"nonzero_data", data}, {"mask", Mask({2, 2}, {1, 0, 0, 1})}};
  EXPECT_ANY_THROW(static_cast<void>(EvaluateOne("constexpr_sparse_to_dense", tooFewOnes, 8)));
  EXPECT_EQ(
      RefusalOf("constexpr_sparse_to_dense", {{"nonzero_data", data}, {"mask", Bytes({0x82})}, {"shape", {3, 3}}}),
      "constexpr_sparse_to_dense 'op': mask has shape [1], expected [2]");
}

TEST(LutToSparse, RepeatsTheMaskAlongTheVectors) {
  const TestOperands operands = {{"indices_mask", Mask({2, 2}, {1, 0, 1, 1})},
                                 {"indices_nonzero_data", Tensor::Ints({3}, {1, 0, 1}, ElementType::UInt1)},
                                 {"lut", Tensor::Floats({1, 1, 2, 2}, {1, 2, 3, 4})},
                                 {"vector_axis", 0}};
  const std::vector<Tensor> results = EvaluateOp("constexpr_lut_to_sparse", operands, 8);
  ASSERT_EQ(results.size(), 2U);
  EXPECT_EQ(results[0].shape(), (Shape{4, 2}));
  EXPECT_THAT(IntsOf(results[0]), ElementsAre(1, 0, 1, 0, 1, 1, 1, 1));
  EXPECT_THAT(FloatsOf(results[1]), ElementsAre(3, 4, 1, 3, 2, 4));
  // Together they must be what the dense form gives, zeros aside.
  EXPECT_THAT(
      FloatsOf(EvaluateOne("constexpr_sparse_to_dense", {{"nonzero_data", results[1]}, {"mask", results[0]}}, 8)),
      ElementsAre(3, 0, 4, 0, 1, 3, 2, 4));
}

TEST(SparseBlockwiseShiftScale, BlocksAreThoseOfTheDenseTensor) {
  const TestOperands operands = {{"data_mask", Mask({2, 2}, {0, 1, 1, 1})},
                                 {"nonzero_data", Tensor::Ints({3}, {1, 2, 3}, ElementType::Int8)},
                                 {"scale", Tensor::Floats({2, 1}, {10, 100})},
                                 {"offset", Tensor::Floats({2, 1}, {0, 1})}};
  const std::vector<Tensor> results = EvaluateOp("constexpr_sparse_blockwise_shift_scale", operands, 8);
  EXPECT_THAT(IntsOf(results.at(0)), ElementsAre(0, 1, 1, 1));
  EXPECT_THAT(FloatsOf(results.at(1)), ElementsAre(10, 100, 200));
}

}  // namespace
}  // namespace ulmora::engine::program
