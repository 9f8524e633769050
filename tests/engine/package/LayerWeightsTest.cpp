// Weights of layers in each of the forms in which they are stored, and what does not fit.

#include "engine/package/LayerWeights.h"
#include "schema/NeuralNetwork.pb.h"
#include "tests/engine/package/PackageTesting.h"

namespace ulmora::engine::package {
namespace {

using coreml::layers::Layer;
using coreml::layers::Weights;
using testing::ExpectError;

std::vector<float> Decode(const Weights& weights, const Shape& shape, std::size_t channelAxis = 0) {
  LayerWeightReader reader;
  const Tensor tensor = reader.Read(weights, {shape, channelAxis});
  EXPECT_EQ(tensor.shape(), shape);
  return {tensor.floats().begin(), tensor.floats().end()};
}

void ExpectRefused(const Weights& weights, const Shape& shape, const std::string& part) {
  ExpectError(Stage::Open, {part}, [&] { static_cast<void>(LayerWeightReader().Read(weights, {shape, 0})); });
}

Weights Linear(std::uint64_t bits, const std::string& bytes, const std::vector<float>& scale,
               const std::vector<float>& bias) {
  Weights weights;
  weights.set_rawvalue(bytes);
  weights.mutable_quantization()->set_numberofbits(bits);
  auto& linear = *weights.mutable_quantization()->mutable_linearquantization();
  linear.mutable_scale()->Add(scale.begin(), scale.end());
  linear.mutable_bias()->Add(bias.begin(), bias.end());
  return weights;
}

TEST(LayerWeights, FullAndHalf) {
  Weights full;
  full.add_floatvalue(1.5F);
  full.add_floatvalue(-2.0F);
  EXPECT_EQ(Decode(full, {2, 1}), (std::vector<float>{1.5F, -2.0F}));
  Weights half;
  half.set_float16value(std::string("\x00\x3e\x00\xc0", 4));
  EXPECT_EQ(Decode(half, {2}), (std::vector<float>{1.5F, -2.0F}));
}

TEST(LayerWeights, LinearBitsBeginAtTheTopOfTheByte) {
  // Three bits each: 101 001 11|1 000.
  const Weights weights = Linear(3, std::string("\xa7\x80", 2), {2.0F}, {-1.0F});
  EXPECT_EQ(Decode(weights, {4}), (std::vector<float>{9, 1, 13, -1}));
}

TEST(LayerWeights, EveryWidthOfBits) {
  for (std::uint64_t bits = 1; bits <= 8; ++bits) {
    const auto top = static_cast<float>((1U << bits) - 1U);
    const std::string bytes(static_cast<std::size_t>(bits), '\xff');
    EXPECT_EQ(Decode(Linear(bits, bytes, {1.0F}, {}), {8}), std::vector<float>(8, top)) << bits;
  }
}

TEST(LayerWeights, ScalesAndBiasesOfEachChannel) {
  const Weights weights = Linear(8, std::string("\x01\x02\x03\x04", 4), {1.0F, 10.0F}, {0.0F, 0.5F});
  EXPECT_EQ(Decode(weights, {2, 2}), (std::vector<float>{1, 2, 30.5F, 40.5F}));
  EXPECT_EQ(Decode(weights, {2, 2}, 1), (std::vector<float>{1, 20.5F, 3, 40.5F}));
}

TEST(LayerWeights, LookupTable) {
  Weights weights;
  weights.set_rawvalue(std::string("\x1b", 1));
  weights.mutable_quantization()->set_numberofbits(2);
  auto& table = *weights.mutable_quantization()->mutable_lookuptablequantization();
  for (const float value : {0.5F, -1.0F, 7.0F, 9.0F}) table.add_floatvalue(value);
  EXPECT_EQ(Decode(weights, {4}), (std::vector<float>{0.5F, -1.0F, 7.0F, 9.0F}));
  table.mutable_floatvalue()->RemoveLast();
  ExpectRefused(weights, {4}, "have a lookup table of 3 entries, expected 4");
}

TEST(LayerWeights, SignedBytes) {
  Weights weights;
  weights.set_int8rawvalue(std::string("\x7f\x80", 2));
  weights.mutable_quantization()->mutable_linearquantization()->add_scale(0.5F);
  EXPECT_EQ(Decode(weights, {2}), (std::vector<float>{63.5F, -64.0F}));
}

TEST(LayerWeights, WithoutLayoutAllThatIsThere) {
  Weights weights;
  for (const float value : {1.0F, 2.0F, 3.0F}) weights.add_floatvalue(value);
  EXPECT_EQ(LayerWeightReader().Read(weights, {}).shape(), (Shape{3}));
  ExpectError(Stage::Open, {"which fit no length"},
              [] { static_cast<void>(LayerWeightReader().Read(Linear(3, "xx", {1.0F}, {}), {})); });
}

TEST(LayerWeights, WhatDoesNotFitIsRefused) {
  Weights full;
  full.add_floatvalue(1.0F);
  ExpectRefused(full, {2}, "hold 4 bytes, expected 8 for shape [2] of 32 bits each");
  full.set_float16value("xx");
  ExpectRefused(full, {1}, "are stored in 2 forms, expected 1");
  ExpectRefused(Linear(9, "x", {1.0F}, {}), {1}, "are quantised to 9 bits, expected 1 to 8");
  ExpectRefused(Linear(0, "x", {1.0F}, {}), {1}, "are quantised to 0 bits, expected 1 to 8");
  ExpectRefused(Linear(8, "xyz", {1.0F, 2.0F}, {}), {3}, "have 2 scales, expected 1 or 3");
  ExpectRefused(Linear(8, "xyz", {1.0F}, {1.0F, 2.0F}), {3}, "have 2 biases, expected 1 or 3");
  ExpectRefused(Linear(8, "xyz", {}, {}), {3}, "have 0 scales, expected 1 or 3");
  Weights bare;
  bare.set_rawvalue("x");
  bare.mutable_quantization()->set_numberofbits(8);
  ExpectRefused(bare, {1}, "are quantised in a way that is not described");
}

TEST(LayerWeights, BoundIsCheckedBeforeMemoryIsTaken) {
  LayerWeightReader reader(10);
  Weights weights;
  for (int i = 0; i < 2; ++i) weights.add_floatvalue(1.0F);
  EXPECT_NO_THROW(static_cast<void>(reader.Read(weights, {Shape{2}, 0})));
  ExpectError(Stage::Load, {"constants of more than 10 bytes"}, [&] {
    static_cast<void>(reader.Read(weights, {Shape{2}, 0}));
  });
}

void ExpectStorage(const Weights& weights, const Shape& shape, const StoredWeights& expected) {
  const StoredWeights found = StorageOf(weights, {shape, 0});
  EXPECT_EQ(found.form, expected.form);
  EXPECT_EQ(found.elements, expected.elements) << found.form;
  EXPECT_EQ(found.bytes, expected.bytes) << found.form;
}

TEST(LayerWeights, StorageOfEachForm) {
  Weights full;
  for (const float value : {1.0F, 2.0F, 3.0F}) full.add_floatvalue(value);
  ExpectStorage(full, {3}, {"float32", 3, 12});
  Weights half;
  half.set_float16value("xxyy");
  ExpectStorage(half, {2, 1}, {"float16", 2, 4});
  ExpectStorage(Linear(3, "xx", {1.0F, 2.0F}, {0.5F}), {2, 2}, {"quantized (uint3)", 4, 2 + 3 * 4});
  Weights table;
  table.set_rawvalue("x");
  table.mutable_quantization()->set_numberofbits(2);
  for (int i = 0; i < 4; ++i) table.mutable_quantization()->mutable_lookuptablequantization()->add_floatvalue(1.0F);
  ExpectStorage(table, {3}, {"palettized (uint2)", 3, 1 + 4 * 4});
  Weights bytes;
  bytes.set_int8rawvalue("xy");
  bytes.mutable_quantization()->mutable_linearquantization()->add_scale(0.5F);
  ExpectStorage(bytes, {2}, {"quantized (int8)", 2, 2 + 4});
  ExpectError(Stage::Open, {"hold 4 bytes, expected 6"}, [&] { static_cast<void>(StorageOf(half, {Shape{3}, 0})); });
}

TEST(LayerWeights, EmptyMessagesHoldNothing) {
  EXPECT_FALSE(HasPayload({}));
  EXPECT_TRUE(HasPayload(Linear(8, "x", {1.0F}, {})));
}

TEST(LayerWeightLayout, FollowsTheSizesOfTheLayer) {
  Layer layer;
  auto& conv = *layer.mutable_convolution();
  conv.set_outputchannels(8);
  conv.set_kernelchannels(6);
  EXPECT_EQ(LayoutOf(layer, "weights").shape, (Shape{8, 6, 3, 3}));
  EXPECT_EQ(LayoutOf(layer, "bias").shape, (Shape{8}));
  conv.set_isdeconvolution(true);
  conv.set_ngroups(2);
  conv.add_kernelsize(4);
  conv.add_kernelsize(2);
  EXPECT_EQ(LayoutOf(layer, "weights").shape, (Shape{6, 4, 4, 2}));
  EXPECT_EQ(LayoutOf(layer, "weights").channelAxis, 1U);
  conv.set_ngroups(3);
  ExpectError(Stage::Open, {"has 8 output channels, which 3 groups cannot share"},
              [&] { static_cast<void>(LayoutOf(layer, "weights")); });
  auto& product = *layer.mutable_batchedmatmul();
  product.set_weightmatrixfirstdimension(3);
  product.set_weightmatrixseconddimension(5);
  EXPECT_EQ(LayoutOf(layer, "weights").shape, (Shape{5, 3}));
  layer.mutable_activation();
  EXPECT_FALSE(LayoutOf(layer, "PReLU.alpha").shape);
}

TEST(LayerWeightLayout, ImpossibleSizesAreRefused) {
  Layer layer;
  auto& conv = *layer.mutable_convolution();
  conv.set_outputchannels(std::uint64_t{1} << 63);
  conv.set_kernelchannels(1);
  ExpectError(Stage::Open, {"has a size 9223372036854775808, expected 1 to"},
              [&] { static_cast<void>(LayoutOf(layer, "weights")); });
  layer.mutable_convolution3d()->set_outputchannels(-1);
  ExpectError(Stage::Open, {"has a size -1, expected 1 to"}, [&] { static_cast<void>(LayoutOf(layer, "weights")); });
  for (int i = 0; i < 20; ++i) layer.mutable_loadconstantnd()->add_shape(1);
  ExpectError(Stage::Open, {"has a shape of rank 20"}, [&] { static_cast<void>(LayoutOf(layer, "data")); });
}

}  // namespace
}  // namespace ulmora::engine::package
