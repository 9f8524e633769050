// Blobs that come from the layer itself or from the shape of another: loadConstant, fill, range, getShape, broadcastTo.

#include "engine/program/import/layers/Families.h"

namespace ulmora::engine::program::layers {
namespace {

/// [C, H, W] for every element of sequence and batch.
void LoadConstant(Layer& layer) {
  layer.Require(0, 0);
  const Tensor& data = layer.Weights("data");
  if (data.shape().size() != 3) layer.Fail("has shape " + ToString(data.shape()) + ", expected [C, H, W]");
  Shape shape = {1};
  shape.insert(shape.end(), data.shape().begin(), data.shape().end());
  layer.SetOutput({layer.Constant(data.Reshaped(std::move(shape))), 4, true});
}

void LoadConstantNd(Layer& layer) {
  layer.Require(0, 0);
  const Tensor& data = layer.Weights("data");
  layer.SetOutput({layer.Constant(data), data.shape().size()});
}

void GetShape(Layer& layer) {
  layer.Require(1, 1);
  layer.SetOutput({layer.AsFloats(layer.Emit("shape", {{"x", layer.FullInput()}})), 1});
}

ValueId Filled(Layer& layer, const Argument& shape, float value) {
  return layer.Emit("fill", {{"shape", shape}, {"value", Tensor::Float(value)}});
}

ValueId FilledLike(Layer& layer, const Blob& reference, float value) {
  return layer.Emit("fill_like", {{"ref_tensor", reference}, {"value", Tensor::Float(value)}});
}

void FillLike(Layer& layer) {
  layer.Require(1, 1);
  SetLikeInput(layer, FilledLike(layer, layer.Input(), layer.Float("value")));
}

void FillStatic(Layer& layer) {
  layer.Require(0, 0);
  const std::vector<std::int32_t> shape = layer.Ints("targetShape");
  layer.SetOutput({Filled(layer, Tensor::IntVector(shape), layer.Float("value")), shape.size()});
}

void FillDynamic(Layer& layer) {
  layer.Require(1, 1);
  const std::size_t rank = layer.DeclaredRank();
  layer.SetOutput({Filled(layer, layer.Whole(layer.Input()), layer.Float("value")), rank});
}

/// Broadcasting is what a product with ones of the wanted shape does.
void SetBroadcast(Layer& layer, const Blob& ones) {
  const Blob input = layer.FullInput(0);
  const ValueId value = layer.Emit("mul", {{"x", input}, {"y", ones}});
  layer.SetOutput(BroadcastOf({input, ones}, value));
}

void BroadcastToLike(Layer& layer) {
  layer.Require(2, 2);
  Blob reference = layer.FullInput(1);
  reference.value = FilledLike(layer, reference, 1.0F);
  SetBroadcast(layer, reference);
}

void BroadcastToStatic(Layer& layer) {
  layer.Require(1, 1);
  const std::vector<std::int32_t> shape = layer.Ints("targetShape");
  SetBroadcast(layer, {Filled(layer, Tensor::IntVector(shape), 1.0F), shape.size()});
}

void BroadcastToDynamic(Layer& layer) {
  layer.Require(2, 2);
  const std::size_t rank = layer.DeclaredRank();
  SetBroadcast(layer, {Filled(layer, layer.Whole(layer.Input(1)), 1.0F), rank});
}

void RangeStatic(Layer& layer) {
  layer.Require(0, 0);
  const ValueId value = layer.Emit("range_1d", {{"start", Tensor::Float(layer.Float("startValue"))},
                                                {"end", Tensor::Float(layer.Float("endValue"))},
                                                {"step", Tensor::Float(layer.Float("stepSizeValue"))}});
  layer.SetOutput({value, 1});
}

/// The end, and if they are given the start and the step, come as blobs.
void RangeDynamic(Layer& layer) {
  layer.Require(1, 3);
  const auto given = [&](std::size_t index, const char* parameter) -> Argument {
    if (layer.InputCount() > index) return layer.Input(index);
    return Tensor::Float(layer.Float(parameter));
  };
  const ValueId value = layer.Emit(
      "range_1d", {{"start", given(1, "startValue")}, {"end", layer.Input(0)}, {"step", given(2, "stepSizeValue")}});
  layer.SetOutput({value, 1});
}

}  // namespace

LayerRules ConstantLayers() {
  return {{"loadConstant", LoadConstant},
          {"loadConstantND", LoadConstantNd},
          {"getShape", GetShape},
          {"fillLike", FillLike},
          {"fillStatic", FillStatic},
          {"fillDynamic", FillDynamic},
          {"broadcastToLike", BroadcastToLike},
          {"broadcastToStatic", BroadcastToStatic},
          {"broadcastToDynamic", BroadcastToDynamic},
          {"rangeStatic", RangeStatic},
          {"rangeDynamic", RangeDynamic}};
}

}  // namespace ulmora::engine::program::layers
