// reshape, flatten, permute and their kin: the same elements under another shape or order.

#include "engine/program/import/layers/Families.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program::layers {
namespace {

ValueId Reshaped(Layer& layer, ValueId x, std::vector<std::int32_t> shape) {
  return layer.Emit("reshape", {{"x", x}, {"shape", Tensor::IntVector(std::move(shape))}});
}

ValueId Transposed(Layer& layer, ValueId x, std::vector<std::int32_t> order) {
  return layer.Emit("transpose", {{"x", x}, {"perm", Tensor::IntVector(std::move(order))}});
}

/// Reshapes [N, C, H, W] to [N, c, h, w]. Where channels come last, elements are counted in the order [H, W, C], before
/// and after.
ValueId ReshapedPlanes(Layer& layer, ValueId planes, const std::vector<std::int32_t>& to) {
  if (layer.Text("mode") == "CHANNEL_FIRST") return Reshaped(layer, planes, {0, to[0], to[1], to[2]});
  const ValueId last = Transposed(layer, planes, {0, 2, 3, 1});
  return Transposed(layer, Reshaped(layer, last, {0, to[1], to[2], to[0]}), {0, 3, 1, 2});
}

/// Reshapes [sequence, N, C, H, W] to [s, N, c, h, w]. The elements of each n are counted in the order [sequence, C, H,
/// W], or, where channels come last, [sequence, H, W, C]: the format does not say where the sequence belongs then.
ValueId ReshapedSequence(Layer& layer, ValueId x, const std::vector<std::int32_t>& to) {
  if (layer.Text("mode") == "CHANNEL_FIRST") {
    const ValueId batches = Transposed(layer, x, {1, 0, 2, 3, 4});
    return Transposed(layer, Reshaped(layer, batches, {0, to[0], to[1], to[2], to[3]}), {1, 0, 2, 3, 4});
  }
  const ValueId last = Transposed(layer, x, {1, 0, 3, 4, 2});
  return Transposed(layer, Reshaped(layer, last, {0, to[0], to[2], to[3], to[1]}), {1, 0, 4, 2, 3});
}

/// [C, H, W] of each element of sequence and batch; or [sequence, C, H, W], which counts elements over the sequence.
void Reshape(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  std::vector<std::int32_t> target = layer.Ints("targetShape");
  const bool withSequence = target.size() == 4;
  if (target.size() != 3 && !withSequence) {
    layer.Fail("targetShape has " + std::to_string(target.size()) + " entries, expected 3 or 4");
  }
  if (std::ranges::any_of(target, [](std::int32_t size) { return size < 1; })) {
    layer.Fail("targetShape has an entry below 1");
  }
  const bool sequenceStays = !withSequence || (target[0] == 1 && input.rank == 4);
  if (withSequence) target.erase(target.begin());
  if (sequenceStays) {
    layer.SetOutput(layer.FromPlanes(input, ReshapedPlanes(layer, layer.Planes(input), target)));
    return;
  }
  // A blob of rank 4 has no sequence, which is one of a single element.
  const Blob full = input.rank == 4 ? layer.Full({input.value, input.rank, true}) : input;
  if (full.rank != 5) layer.Fail("has an input of rank " + std::to_string(full.rank) + ", expected 5");
  target.insert(target.begin(), layer.Ints("targetShape").front());
  layer.SetOutput({ReshapedSequence(layer, full.value, target), 5});
}

/// [..., C * H * W, 1, 1].
void Flatten(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  ValueId planes = layer.Planes(input);
  if (layer.Text("mode") == "CHANNEL_LAST") planes = Transposed(layer, planes, {0, 2, 3, 1});
  layer.SetOutput(layer.FromPlanes(input, Reshaped(layer, planes, {0, -1, 1, 1})));
}

/// Permutes [sequence, C, H, W]; the batch stays where it is.
void Permute(Layer& layer) {
  layer.Require(1, 1);
  const std::vector<std::int32_t> axis = layer.Ints("axis");
  std::vector<std::int32_t> sorted = axis;
  std::ranges::sort(sorted);
  if (sorted != std::vector<std::int32_t>{0, 1, 2, 3}) layer.Fail("axis is no permutation of 0 to 3");
  const Blob input = layer.Input();
  if (input.rank == 4 && axis[0] == 0) {
    SetLikeInput(layer, Transposed(layer, input.value, axis));
    return;
  }
  const Blob full = input.rank == 4 ? layer.Full({input.value, input.rank, true}) : input;
  if (full.rank != 5) layer.Fail("has an input of rank " + std::to_string(full.rank) + ", expected 5");
  const auto place = [](std::int32_t i) { return i == 0 ? 0 : i + 1; };
  const std::vector<std::int32_t> order = {place(axis[0]), 1, place(axis[1]), place(axis[2]), place(axis[3])};
  layer.SetOutput({Transposed(layer, full.value, order), 5});
}

void Transpose(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  layer.SetOutput({Transposed(layer, input.value, layer.Ints("axes")), input.rank});
}

void ExpandDims(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const std::vector<std::int32_t> axes = layer.Ints("axes");
  const ValueId value = layer.Emit("expand_dims", {{"x", input}, {"axes", Tensor::IntVector(axes)}});
  layer.SetOutput({value, input.rank + axes.size()});
}

void Squeeze(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const std::vector<std::int32_t> axes = layer.Ints("axes");
  Blob output{0, 0};
  if (layer.Bool("squeezeAll")) {
    output = {layer.Emit("squeeze", {{"x", input}}), layer.DeclaredRank()};
  } else {
    if (axes.size() > input.rank) layer.Fail("has " + std::to_string(axes.size()) + " axes, but its input less");
    const ValueId value = layer.Emit("squeeze", {{"x", input}, {"axes", Tensor::IntVector(axes)}});
    output = {value, input.rank - axes.size()};
  }
  layer.SetOutput(output);
}

void FlattenTo2D(Layer& layer) {
  layer.Require(1, 1);
  const ValueId value = layer.Emit("flatten2d", {{"x", layer.FullInput()}, {"axis", Axis(layer.Int("axis"))}});
  layer.SetOutput({value, 2});
}

/// A shape of which one entry may be -1; zeros, which the operation takes for copies, have no meaning.
void ReshapeStatic(Layer& layer) {
  layer.Require(1, 1);
  const std::vector<std::int32_t> shape = layer.Ints("targetShape");
  if (std::ranges::count(shape, 0) > 0) layer.Fail("targetShape has an entry 0");
  layer.SetOutput({Reshaped(layer, layer.FullInput().value, shape), shape.size()});
}

/// Zeros copy the dimension at their place.
void RankPreservingReshape(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const std::vector<std::int32_t> shape = layer.Ints("targetShape");
  if (shape.size() != input.rank) {
    layer.Fail("targetShape has " + std::to_string(shape.size()) + " entries, expected " + std::to_string(input.rank));
  }
  layer.SetOutput({Reshaped(layer, input.value, shape), input.rank});
}

void ReshapeLike(Layer& layer) {
  layer.Require(2, 2);
  const Blob like = layer.FullInput(1);
  const ValueId shape = layer.Emit("shape", {{"x", like}});
  layer.SetOutput({layer.Emit("reshape", {{"x", layer.FullInput(0)}, {"shape", shape}}), like.rank});
}

void ReshapeDynamic(Layer& layer) {
  layer.Require(2, 2);
  const std::size_t rank = layer.DeclaredRank();
  const ValueId shape = layer.Whole(layer.Input(1));
  layer.SetOutput({layer.Emit("reshape", {{"x", layer.FullInput(0)}, {"shape", shape}}), rank});
}

}  // namespace

LayerRules ReshapeLayers() {
  return {{"reshape", Reshape},
          {"flatten", Flatten},
          {"permute", Permute},
          {"transpose", Transpose},
          {"expandDims", ExpandDims},
          {"squeeze", Squeeze},
          {"flattenTo2D", FlattenTo2D},
          {"reshapeStatic", ReshapeStatic},
          {"rankPreservingReshape", RankPreservingReshape},
          {"reshapeLike", ReshapeLike},
          {"reshapeDynamic", ReshapeDynamic}};
}

}  // namespace ulmora::engine::program::layers
