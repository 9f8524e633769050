// Elementwise arithmetic: layers of any number of inputs that broadcast within limits, layers of two that broadcast
// freely, and those with a constant of the layer's own.

#include "engine/program/import/layers/Families.h"

#include <string>

namespace ulmora::engine::program::layers {
namespace {

/// All inputs joined by an operation of two. The limited broadcasting of older layers is part of the free one.
ValueId Chain(Layer& layer, const char* operation, std::vector<Blob>& inputs) {
  for (std::size_t i = 0; i < layer.InputCount(); ++i) inputs.push_back(layer.Input(i));
  ValueId value = inputs.front().value;
  for (std::size_t i = 1; i < inputs.size(); ++i) {
    value = layer.Emit(operation, {{"x", value}, {"y", inputs[i]}});
  }
  return value;
}

constexpr std::size_t kAnyNumber = 65'536;

template <const char* kOperation>
void Joined(Layer& layer) {
  layer.Require(1, kAnyNumber);
  std::vector<Blob> inputs;
  const ValueId value = Chain(layer, kOperation, inputs);
  layer.SetOutput(BroadcastOf(inputs, value));
}

/// One input is joined with alpha.
template <const char* kOperation>
void JoinedOrWithAlpha(Layer& layer) {
  if (layer.InputCount() != 1) return Joined<kOperation>(layer);
  layer.Require(1, 1);
  SetLikeInput(layer, layer.Emit(kOperation, {{"x", layer.Input()}, {"y", Tensor::Float(layer.Float("alpha"))}}));
}

void Average(Layer& layer) {
  layer.Require(1, kAnyNumber);
  std::vector<Blob> inputs;
  const ValueId sum = Chain(layer, "add", inputs);
  const float share = 1.0F / static_cast<float>(inputs.size());
  layer.SetOutput(BroadcastOf(inputs, layer.Emit("mul", {{"x", sum}, {"y", Tensor::Float(share)}})));
}

template <const char* kOperation>
void OfTwo(Layer& layer) {
  layer.Require(2, 2);
  Joined<kOperation>(layer);
}

/// [1], [C], [1, H, W] or [C, H, W], so that it broadcasts against [..., C, H, W].
Tensor OnPlanes(const Layer& layer, const Tensor& numbers) {
  if (numbers.shape().size() == 3) return numbers;
  if (numbers.shape().size() == 1) return numbers.Reshaped({numbers.count(), 1, 1});
  layer.Fail("has a constant of shape " + ToString(numbers.shape()) + ", expected [1], [C], [1, H, W] or [C, H, W]");
}

void Scale(Layer& layer) {
  layer.Require(1, 1);
  layer.RequireRank(layer.Input(), 3);
  ValueId value = layer.Emit("mul", {{"x", layer.Input()}, {"y", OnPlanes(layer, layer.Weights("scale"))}});
  if (layer.Bool("hasBias")) {
    value = layer.Emit("add", {{"x", value}, {"y", OnPlanes(layer, layer.Weights("bias"))}});
  }
  SetLikeInput(layer, value);
}

void Bias(Layer& layer) {
  layer.Require(1, 1);
  layer.RequireRank(layer.Input(), 3);
  SetLikeInput(layer, layer.Emit("add", {{"x", layer.Input()}, {"y", OnPlanes(layer, layer.Weights("bias"))}}));
}

ValueId SumOverChannels(Layer& layer, ValueId x) {
  return layer.Emit("reduce_sum", {{"x", x}, {"axes", Tensor::IntVector({-3})}, {"keep_dims", Tensor::Bool(true)}});
}

/// The sum over channels of a * b, or that over the product of both lengths.
void Dot(Layer& layer) {
  layer.Require(2, 2);
  const std::vector<Blob> inputs = {layer.Input(0), layer.Input(1)};
  for (const Blob& input : inputs) layer.RequireRank(input, 3);
  ValueId value = SumOverChannels(layer, layer.Emit("mul", {{"x", inputs[0]}, {"y", inputs[1]}}));
  if (layer.Bool("cosineSimilarity")) {
    for (const Blob& input : inputs) {
      const ValueId length = layer.Emit("sqrt", {{"x", SumOverChannels(layer, layer.Emit("square", {{"x", input}}))}});
      value = layer.Emit("real_div", {{"x", value}, {"y", length}});
    }
  }
  layer.SetOutput(BroadcastOf(inputs, value));
}

constexpr char kAdd[] = "add";
constexpr char kSub[] = "sub";
constexpr char kMul[] = "mul";
constexpr char kDiv[] = "real_div";
constexpr char kFloorDiv[] = "floor_div";
constexpr char kMod[] = "mod";
constexpr char kPow[] = "pow";
constexpr char kMax[] = "maximum";
constexpr char kMin[] = "minimum";

}  // namespace

LayerRules ArithmeticLayers() {
  return {
      {"add", JoinedOrWithAlpha<kAdd>},
      {"multiply", JoinedOrWithAlpha<kMul>},
      {"average", Average},
      {"max", Joined<kMax>},
      {"min", Joined<kMin>},
      {"dot", Dot},
      {"scale", Scale},
      {"bias", Bias},
      {"addBroadcastable", OfTwo<kAdd>},
      {"subtractBroadcastable", OfTwo<kSub>},
      {"multiplyBroadcastable", OfTwo<kMul>},
      {"divideBroadcastable", OfTwo<kDiv>},
      {"floorDivBroadcastable", OfTwo<kFloorDiv>},
      {"modBroadcastable", OfTwo<kMod>},
      {"powBroadcastable", OfTwo<kPow>},
      {"maxBroadcastable", OfTwo<kMax>},
      {"minBroadcastable", OfTwo<kMin>},
  };
}

}  // namespace ulmora::engine::program::layers
