// activation, whose parameters say which one, clampedReLU and gelu.

#include "engine/program/import/layers/Families.h"

#include <string>

namespace ulmora::engine::program::layers {
namespace {

/// An activation that has an operation of its own with the same parameters.
struct Plain {
  const char* kind;
  const char* operation;
  int parameters;  ///< none, alpha, or alpha and beta
};

constexpr Plain kPlain[] = {
    {"linear", "linear_activation", 2},
    {"ReLU", "relu", 0},
    {"leakyReLU", "leaky_relu", 1},
    {"thresholdedReLU", "thresholded_relu", 1},
    {"tanh", "tanh", 0},
    {"scaledTanh", "scaled_tanh", 2},
    {"sigmoid", "sigmoid", 0},
    {"sigmoidHard", "sigmoid_hard", 2},
    {"ELU", "elu", 1},
    {"softsign", "softsign", 0},
    {"softplus", "softplus", 0},
};

/// Numbers that are one, or one for each channel, so that they broadcast against [..., C, H, W].
Tensor AlongChannels(const Tensor& numbers) {
  return numbers.Reshaped({numbers.count(), 1, 1});
}

void ParametricRelu(Layer& layer) {
  const Blob input = layer.Input();
  const Tensor& slopes = layer.Weights("PReLU.alpha");
  if (slopes.count() == 1) {
    SetLikeInput(layer, layer.Emit("leaky_relu", {{"x", input}, {"alpha", Tensor::Float(slopes.floats().front())}}));
    return;
  }
  const ValueId planes = layer.Planes(input);
  layer.SetOutput(layer.FromPlanes(input, layer.Emit("prelu", {{"x", planes}, {"alpha", slopes}})));
}

/// alpha * log(1 + exp(beta * x)).
void ParametricSoftplus(Layer& layer) {
  layer.RequireRank(layer.Input(), 3);
  const Tensor alpha = AlongChannels(layer.Weights("parametricSoftplus.alpha"));
  const Tensor beta = AlongChannels(layer.Weights("parametricSoftplus.beta"));
  const ValueId scaled = layer.Emit("mul", {{"x", layer.Input()}, {"y", beta}});
  const ValueId smooth = layer.Emit("softplus", {{"x", scaled}});
  SetLikeInput(layer, layer.Emit("mul", {{"x", smooth}, {"y", alpha}}));
}

void Activation(Layer& layer) {
  layer.Require(1, 1);
  if (layer.Has("PReLU")) return ParametricRelu(layer);
  if (layer.Has("parametricSoftplus")) return ParametricSoftplus(layer);
  for (const Plain& plain : kPlain) {
    if (!layer.Has(plain.kind)) continue;
    Arguments arguments = {{"x", layer.Input()}};
    const std::string prefix = std::string(plain.kind) + ".";
    if (plain.parameters > 0) arguments.emplace_back("alpha", Tensor::Float(layer.Float(prefix + "alpha")));
    if (plain.parameters > 1) arguments.emplace_back("beta", Tensor::Float(layer.Float(prefix + "beta")));
    SetLikeInput(layer, layer.Emit(plain.operation, std::move(arguments)));
    return;
  }
  layer.Fail("is of an unknown kind of activation");
}

void ClampedRelu(Layer& layer) {
  layer.Require(1, 1);
  SetLikeInput(layer, layer.Emit("clamped_relu", {{"x", layer.Input()},
                                                  {"alpha", Tensor::Float(layer.Float("alpha"))},
                                                  {"beta", Tensor::Float(layer.Float("beta"))}}));
}

void Gelu(Layer& layer) {
  layer.Require(1, 1);
  SetLikeInput(layer, layer.Emit("gelu", {{"x", layer.Input()}, {"mode", layer.Text("mode")}}));
}

}  // namespace

LayerRules ActivationLayers() {
  return {{"activation", Activation}, {"clampedReLU", ClampedRelu}, {"gelu", Gelu}};
}

}  // namespace ulmora::engine::program::layers
