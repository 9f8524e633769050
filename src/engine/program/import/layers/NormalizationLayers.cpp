// batchnorm, mvn, l2normalize, lrn, layerNormalization, softmax and softmaxND.

#include "engine/program/import/layers/Families.h"

#include <string>

namespace ulmora::engine::program::layers {
namespace {

Tensor Epsilon(const Layer& layer, float whatZeroMeans) {
  return Tensor::Float(layer.FloatOr("epsilon", whatZeroMeans));
}

constexpr float kBatchEpsilon = 1e-5F;
constexpr float kNormEpsilon = 1e-6F;

ValueId Mean(Layer& layer, ValueId x, std::vector<std::int32_t> axes) {
  return layer.Emit("reduce_mean",
                    {{"x", x}, {"axes", Tensor::IntVector(std::move(axes))}, {"keep_dims", Tensor::Bool(true)}});
}

/// Each channel with the mean and the variance that it has over the whole batch.
ValueId OverBatch(Layer& layer, ValueId planes) {
  const ValueId centered = layer.Emit("sub", {{"x", planes}, {"y", Mean(layer, planes, {0, 2, 3})}});
  const ValueId variance = Mean(layer, layer.Emit("square", {{"x", centered}}), {0, 2, 3});
  const ValueId inverse = layer.Emit("rsqrt", {{"x", variance}, {"epsilon", Epsilon(layer, kBatchEpsilon)}});
  ValueId value = layer.Emit("mul", {{"x", centered}, {"y", inverse}});
  const Tensor& gamma = layer.Weights("gamma");
  const Tensor& beta = layer.Weights("beta");
  value = layer.Emit("mul", {{"x", value}, {"y", gamma.Reshaped({gamma.count(), 1, 1})}});
  return layer.Emit("add", {{"x", value}, {"y", beta.Reshaped({beta.count(), 1, 1})}});
}

void Batchnorm(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  const ValueId planes = layer.Planes(input);
  const bool computed = layer.Bool("computeMeanVar");
  if (computed && !layer.Bool("instanceNormalization")) {
    layer.SetOutput(layer.FromPlanes(input, OverBatch(layer, planes)));
    return;
  }
  Arguments arguments = {{"x", planes},
                         {"gamma", layer.Weights("gamma")},
                         {"beta", layer.Weights("beta")},
                         {"epsilon", Epsilon(layer, kBatchEpsilon)}};
  if (!computed) {
    arguments.emplace_back("mean", layer.Weights("mean"));
    arguments.emplace_back("variance", layer.Weights("variance"));
  }
  const ValueId value = layer.Emit(computed ? "instance_norm" : "batch_norm", std::move(arguments));
  layer.SetOutput(layer.FromPlanes(input, value));
}

void Mvn(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  layer.RequireRank(input, 3);
  const bool across = layer.Bool("acrossChannels");
  const std::vector<std::int32_t> axes = across ? std::vector{-3, -2, -1} : std::vector{-2, -1};
  if (!layer.Bool("normalizeVariance")) {
    SetLikeInput(layer, layer.Emit("sub", {{"x", input}, {"y", Mean(layer, input.value, axes)}}));
  } else if (across) {
    SetLikeInput(layer, layer.Emit("layer_norm", {{"x", input},
                                                  {"axes", Tensor::IntVector(axes)},
                                                  {"epsilon", Epsilon(layer, kNormEpsilon)}}));
  } else {
    const ValueId planes = layer.Planes(input);
    const ValueId value = layer.Emit("instance_norm", {{"x", planes}, {"epsilon", Epsilon(layer, kNormEpsilon)}});
    layer.SetOutput(layer.FromPlanes(input, value));
  }
}

void L2Normalize(Layer& layer) {
  layer.Require(1, 1);
  layer.RequireRank(layer.Input(), 3);
  SetLikeInput(layer, layer.Emit("l2_norm", {{"x", layer.Input()}, {"epsilon", Epsilon(layer, kNormEpsilon)}}));
}

void Lrn(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  const ValueId value =
      layer.Emit("local_response_norm", {{"x", layer.Planes(input)},
                                         {"size", Tensor::Int(static_cast<std::int32_t>(layer.Int("localSize")))},
                                         {"alpha", Tensor::Float(layer.Float("alpha"))},
                                         {"beta", Tensor::Float(layer.Float("beta"))},
                                         {"k", Tensor::Float(layer.FloatOr("k", 1.0F))}});
  layer.SetOutput(layer.FromPlanes(input, value));
}

void LayerNormalization(Layer& layer) {
  layer.Require(1, 1);
  const auto count = static_cast<std::int32_t>(layer.Ints("normalizedShape").size());
  layer.RequireRank(layer.Input(), static_cast<std::size_t>(count));
  std::vector<std::int32_t> axes;
  for (std::int32_t axis = -count; axis < 0; ++axis) axes.push_back(axis);
  Arguments arguments = {{"x", layer.Input()},
                         {"axes", Tensor::IntVector(std::move(axes))},
                         {"epsilon", Tensor::Float(layer.FloatOr("eps", kBatchEpsilon))}};
  for (const char* parameter : {"gamma", "beta"}) {
    if (layer.Has(parameter)) arguments.emplace_back(parameter, layer.Weights(parameter));
  }
  SetLikeInput(layer, layer.Emit("layer_norm", std::move(arguments)));
}

void Softmax(Layer& layer) {
  layer.Require(1, 1);
  layer.RequireRank(layer.Input(), 3);
  SetLikeInput(layer, layer.Emit("softmax", {{"x", layer.Input()}, {"axis", Axis(-3)}}));
}

void SoftmaxNd(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  layer.SetOutput({layer.Emit("softmax", {{"x", input}, {"axis", Axis(layer.Int("axis"))}}), input.rank});
}

}  // namespace

LayerRules NormalizationLayers() {
  return {{"batchnorm", Batchnorm},
          {"mvn", Mvn},
          {"l2normalize", L2Normalize},
          {"lrn", Lrn},
          {"layerNormalization", LayerNormalization},
          {"softmax", Softmax},
          {"softmaxND", SoftmaxNd}};
}

}  // namespace ulmora::engine::program::layers
