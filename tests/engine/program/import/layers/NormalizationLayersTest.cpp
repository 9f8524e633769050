// Normalisations and products with matrices against sums written out here.

#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/import/layers/LayerTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace ulmora::engine::program::testing {
namespace {

using coreml::layers::Batchnorm;
using coreml::layers::Layer;

const Tensor kX = Tensor::Floats({2, 2, 1, 2}, {1, 3, -2, 4, 5, 6, 0, 1});

double MeanOf(const std::vector<float>& values) {
  double sum = 0.0;
  for (const float value : values) sum += value;
  return sum / static_cast<double>(values.size());
}

/// (x - mean) / sqrt(variance + epsilon).
std::vector<float> Normalized(const std::vector<float>& values, double epsilon) {
  const double mean = MeanOf(values);
  std::vector<float> squares;
  for (const float value : values) squares.push_back(static_cast<float>((value - mean) * (value - mean)));
  const double scale = 1.0 / std::sqrt(MeanOf(squares) + epsilon);
  std::vector<float> result;
  for (const float value : values) result.push_back(static_cast<float>((value - mean) * scale));
  return result;
}

/// Each run of `length` elements normalised by itself.
std::vector<float> NormalizedRuns(const Tensor& x, std::size_t length, double epsilon) {
  std::vector<float> result;
  for (std::size_t i = 0; i < x.floats().size(); i += length) {
    const std::span<const float> run = x.floats().subspan(i, length);
    for (const float value : Normalized({run.begin(), run.end()}, epsilon)) result.push_back(value);
  }
  return result;
}

Batchnorm& SetBatchnorm(Layer& layer) {
  Batchnorm& norm = *layer.mutable_batchnorm();
  norm.set_channels(2);
  SetWeights(*norm.mutable_gamma(), {2, 3});
  SetWeights(*norm.mutable_beta(), {0.5F, -0.5F});
  return norm;
}

float Affine(float value, bool second) {
  return second ? value * 3.0F - 0.5F : value * 2.0F + 0.5F;
}

TEST(BatchnormLayer, WithStoredStatistics) {
  const auto configure = [](Layer& layer) {
    Batchnorm& norm = SetBatchnorm(layer);
    norm.set_epsilon(0.25F);
    SetWeights(*norm.mutable_mean(), {1, 2});
    SetWeights(*norm.mutable_variance(), {3.75F, 0});
  };
  std::vector<float> expected;
  for (std::size_t i = 0; i < 8; ++i) {
    const bool second = i % 4 >= 2;
    expected.push_back(Affine(second ? (kX.floats()[i] - 2.0F) / 0.5F : (kX.floats()[i] - 1.0F) / 2.0F, second));
  }
  ExpectNear(RunLayer(kX, configure), kX.shape(), expected);
  EXPECT_THAT(RefusalOfLayer(kX, [](Layer& layer) { SetBatchnorm(layer); }),
              ::testing::HasSubstr("batchnorm layer 'tested': lacks mean"));
}

TEST(BatchnormLayer, WithStatisticsOfEachInstance) {
  const auto configure = [](Layer& layer) {
    SetBatchnorm(layer).set_computemeanvar(true);
    layer.mutable_batchnorm()->set_instancenormalization(true);
  };
  std::vector<float> expected = NormalizedRuns(kX, 2, 1e-5);
  for (std::size_t i = 0; i < 8; ++i) expected[i] = Affine(expected[i], i % 4 >= 2);
  ExpectNear(RunLayer(kX, configure), kX.shape(), expected);
}

TEST(BatchnormLayer, WithStatisticsOfTheBatch) {
  const auto configure = [](Layer& layer) { SetBatchnorm(layer).set_computemeanvar(true); };
  const std::vector<float> first = Normalized({1, 3, 5, 6}, 1e-5);
  const std::vector<float> second = Normalized({-2, 4, 0, 1}, 1e-5);
  ExpectNear(RunLayer(kX, configure), kX.shape(),
             {Affine(first[0], false), Affine(first[1], false), Affine(second[0], true), Affine(second[1], true),
              Affine(first[2], false), Affine(first[3], false), Affine(second[2], true), Affine(second[3], true)});
}

TEST(MvnLayer, OverPlanesOrChannelsWithOrWithoutVariance) {
  const auto run = [](bool across, bool variance) {
    return RunLayer(kX, [=](Layer& layer) {
      layer.mutable_mvn()->set_acrosschannels(across);
      layer.mutable_mvn()->set_normalizevariance(variance);
    });
  };
  ExpectNear(run(false, true), kX.shape(), NormalizedRuns(kX, 2, 1e-6));
  ExpectNear(run(true, true), kX.shape(), NormalizedRuns(kX, 4, 1e-6));
  ExpectNear(run(false, false), kX.shape(), {-1, 1, -3, 3, -0.5F, 0.5F, -0.5F, 0.5F});
  ExpectNear(run(true, false), kX.shape(), {-0.5F, 1.5F, -3.5F, 2.5F, 2, 3, -3, -2});
}

TEST(NormLayers, L2AndLocalResponse) {
  const auto l2 = [](Layer& layer) { layer.mutable_l2normalize()->set_epsilon(6); };
  ExpectNear(RunLayer(Tensor::Floats({1, 2, 1, 1}, {1, 3}), l2), {1, 2, 1, 1}, {0.25F, 0.75F});
  const auto local = [](Layer& layer) {
    layer.mutable_lrn()->set_alpha(6);
    layer.mutable_lrn()->set_beta(0.5F);
    layer.mutable_lrn()->set_localsize(3);
  };
  // 1 + 6 / 3 * sum over a channel and its neighbours.
  ExpectNear(RunLayer(Tensor::Floats({1, 3, 1, 1}, {1, 2, 3}), local), {1, 3, 1, 1},
             {1 / std::sqrt(11.0F), 2 / std::sqrt(29.0F), 3 / std::sqrt(27.0F)});
}

TEST(NormLayers, LayerNormalization) {
  const auto configure = [](Layer& layer) {
    auto& norm = *layer.mutable_layernormalization();
    norm.add_normalizedshape(2);
    norm.set_eps(0.5F);
    SetWeights(*norm.mutable_gamma(), {2, 3});
    SetWeights(*norm.mutable_beta(), {1, -1});
  };
  std::vector<float> expected = NormalizedRuns(kX, 2, 0.5);
  for (std::size_t i = 0; i < 8; ++i) expected[i] = i % 2 == 0 ? expected[i] * 2 + 1 : expected[i] * 3 - 1;
  ExpectNear(RunLayer(kX, configure), kX.shape(), expected);
}

TEST(NormLayers, SoftmaxOverChannelsOrAnAxis) {
  const Tensor x = Tensor::Floats({1, 2, 1, 2}, {0, 1, std::log(3.0F), 1});
  const std::vector<float> overChannels = {0.25F, 0.5F, 0.75F, 0.5F};
  ExpectNear(RunLayer(x, [](Layer& l) { l.mutable_softmax(); }), x.shape(), overChannels);
  ExpectNear(RunLayer(x, [](Layer& l) { l.mutable_softmaxnd()->set_axis(1); }), x.shape(), overChannels);
}

void SetMatrix(coreml::layers::InnerProduct& product) {
  product.set_inputchannels(4);
  product.set_outputchannels(2);
  product.set_hasbias(true);
  SetWeights(*product.mutable_weights(), {1, 10, 100, 1000, 1, 1, 1, 1});
  SetWeights(*product.mutable_bias(), {0.5F, 0});
}

TEST(InnerProductLayer, OfPlanesAndOfVectors) {
  const auto configure = [](Layer& layer) { SetMatrix(*layer.mutable_innerproduct()); };
  ExpectNear(RunLayer(Ramp({1, 2, 1, 2}), configure), {1, 2, 1, 1}, {3210.5F, 6});
  ExpectNear(RunLayer(Ramp({2, 4}), configure), {2, 2}, {3210.5F, 6, 7654.5F, 22});
  ExpectNear(RunLayer(Ramp({1, 2, 2, 1, 2}), configure), {1, 2, 2, 1, 1}, {3210.5F, 6, 7654.5F, 22});
}

TEST(InnerProductLayer, WithSignedBytes) {
  const auto configure = [](Layer& layer) {
    auto& product = *layer.mutable_innerproduct();
    product.set_inputchannels(2);
    product.set_outputchannels(2);
    product.set_int8dynamicquantize(true);
    product.mutable_weights()->set_int8rawvalue(std::string("\x01\xff\x80\x7f", 4));
    auto& linear = *product.mutable_weights()->mutable_quantization()->mutable_linearquantization();
    linear.add_scale(2);
    linear.add_scale(0.5F);
  };
  ExpectNear(RunLayer(Tensor::Floats({1, 2}, {3, 1}), configure), {1, 2}, {4, -128.5F});
}

TEST(BatchedMatmulLayer, OfTwoInputsAndWithItsMatrix) {
  const Tensor a = Ramp({2, 2});
  const Tensor b = Tensor::Floats({2, 2}, {1, 10, 100, 1000});
  ExpectNear(RunLayer(a, [](Layer& l) { l.mutable_batchedmatmul(); }, {b}), {2, 2}, {100, 1000, 302, 3020});
  const auto transposed = [](Layer& l) {
    l.mutable_batchedmatmul()->set_transposea(true);
    l.mutable_batchedmatmul()->set_transposeb(true);
  };
  ExpectNear(RunLayer(a, transposed, {b}), {2, 2}, {20, 2000, 31, 3100});
  const auto matrix = [](Layer& l) {
    auto& product = *l.mutable_batchedmatmul();
    product.set_weightmatrixfirstdimension(2);
    product.set_weightmatrixseconddimension(1);
    SetWeights(*product.mutable_weights(), {1, 10});
    product.set_hasbias(true);
    SetWeights(*product.mutable_bias(), {0.5F});
  };
  ExpectNear(RunLayer(a, matrix), {2, 1}, {10.5F, 32.5F});
}

}  // namespace
}  // namespace ulmora::engine::program::testing
