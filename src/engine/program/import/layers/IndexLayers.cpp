// gather, scatter, embedding, topK, argSort, oneHot and their kin: elements by position, and positions of elements.
// Positions are blobs of numbers; those below zero count from the end.

#include "engine/program/import/layers/Families.h"

#include <array>
#include <string>
#include <utility>

namespace ulmora::engine::program::layers {
namespace {

void Gather(Layer& layer) {
  layer.Require(2, 2);
  const Blob input = layer.FullInput(0);
  const Blob indices = layer.FullInput(1);
  const ValueId value =
      layer.Emit("gather", {{"x", input}, {"indices", layer.Whole(indices)}, {"axis", Axis(layer.Int("axis"))}});
  layer.SetOutput({value, input.rank + indices.rank - 1});
}

void GatherAlongAxis(Layer& layer) {
  layer.Require(2, 2);
  const Blob input = layer.FullInput(0);
  const ValueId indices = layer.Whole(layer.FullInput(1));
  const ValueId value =
      layer.Emit("gather_along_axis", {{"x", input}, {"indices", indices}, {"axis", Axis(layer.Int("axis"))}});
  layer.SetOutput({value, input.rank});
}

/// A blob that counts as a vector even if its value is a single number.
Blob AtLeastVector(Layer& layer, const Blob& blob) {
  if (blob.rank != 1) return blob;
  return {layer.Emit("reshape", {{"x", blob}, {"shape", Tensor::IntVector({-1})}}), 1};
}

/// The last dimension of the indices, which decides the rank of the output, may follow from other sizes; then the layer
/// must tell the rank.
void GatherNd(Layer& layer) {
  layer.Require(2, 2);
  const Blob input = layer.FullInput(0);
  const Blob indices = layer.FullInput(1);
  const ValueId value = layer.Emit("gather_nd", {{"x", input}, {"indices", layer.Whole(indices)}});
  const std::int64_t depth = layer.KnownLastDim(indices);
  if (depth == kUnknownDim) return layer.SetOutput(AtLeastVector(layer, {value, layer.DeclaredRank()}));
  if (std::cmp_greater(depth, input.rank)) {
    layer.Fail("has positions of " + std::to_string(depth) + " dimensions, but its input has " +
               std::to_string(input.rank));
  }
  layer.SetOutput({value, indices.rank - 1 + input.rank - static_cast<std::size_t>(depth)});
}

constexpr std::array<std::pair<const char*, const char*>, 7> kModes = {{{"SCATTER_UPDATE", "update"},
                                                                        {"SCATTER_ADD", "add"},
                                                                        {"SCATTER_SUB", "sub"},
                                                                        {"SCATTER_MUL", "mul"},
                                                                        {"SCATTER_DIV", "div"},
                                                                        {"SCATTER_MAX", "max"},
                                                                        {"SCATTER_MIN", "min"}}};

/// Data, positions, updates.
Arguments ScatterArguments(Layer& layer) {
  layer.Require(3, 3);
  Arguments arguments = {
      {"data", layer.FullInput(0)}, {"indices", layer.Whole(layer.FullInput(1))}, {"updates", layer.FullInput(2)}};
  for (const auto& [name, mode] : kModes) {
    if (layer.Text("mode") == name) arguments.emplace_back("mode", mode);
  }
  return arguments;
}

template <const char* kOperation>
void ScatterWithAxis(Layer& layer) {
  Arguments arguments = ScatterArguments(layer);
  arguments.emplace_back("axis", Axis(layer.Int("axis")));
  layer.SetOutput({layer.Emit(kOperation, std::move(arguments)), layer.FullInput(0).rank});
}

void ScatterNd(Layer& layer) {
  Arguments arguments = ScatterArguments(layer);
  layer.SetOutput({layer.Emit("scatter_nd", std::move(arguments)), layer.FullInput(0).rank});
}

/// Rows of the transposed weights [outputs, words] for whole numbers, with the bias added: [..., outputs].
ValueId Embedded(Layer& layer, ValueId words) {
  const ValueId rows = layer.Emit("transpose", {{"x", layer.Weights("weights")}, {"perm", Tensor::IntVector({1, 0})}});
  const ValueId value = layer.Emit("gather", {{"x", rows}, {"indices", words}, {"axis", Axis(0)}});
  return layer.Bool("hasBias") ? layer.Emit("add", {{"x", value}, {"y", layer.Weights("bias")}}) : value;
}

/// Planes of a single number become [outputs, 1, 1].
void Embedding(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  const ValueId planes = layer.Planes(input);
  const ValueId numbers = layer.Emit("squeeze", {{"x", planes}, {"axes", Tensor::IntVector({1, 2, 3})}});
  const ValueId value = Embedded(layer, layer.Whole({numbers, 1}));
  layer.SetOutput(
      layer.FromPlanes(input, layer.Emit("expand_dims", {{"x", value}, {"axes", Tensor::IntVector({2, 3})}})));
}

/// [..., 1] becomes [..., outputs].
void EmbeddingNd(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const ValueId numbers = layer.Emit("squeeze", {{"x", input}, {"axes", Tensor::IntVector({-1})}});
  layer.SetOutput({Embedded(layer, layer.Whole({numbers, input.rank - 1})), input.rank});
}

/// How many, from the second input, which follows from shapes, or the layer's own number.
Argument CountOf(Layer& layer, const char* parameter) {
  if (layer.InputCount() == 2) return layer.WholeScalar(layer.Input(1));
  return Tensor::Int(static_cast<std::int32_t>(layer.Int(parameter)));
}

/// The largest or smallest elements along an axis, in their order, and if a second output asks where they stand.
void TopK(Layer& layer) {
  const std::size_t outputs = layer.OutputCount() == 2 ? 2 : 1;
  layer.Require(1, 2, outputs);
  const Blob input = layer.FullInput();
  const std::vector<ValueId> values = layer.EmitSeveral("topk",
                                                        {{"x", input},
                                                         {"k", CountOf(layer, "K")},
                                                         {"axis", Axis(layer.Int("axis"))},
                                                         {"ascending", Tensor::Bool(layer.Bool("useBottomK"))},
                                                         {"return_indices", Tensor::Bool(outputs == 2)}},
                                                        outputs);
  layer.SetOutput({values[0], input.rank}, 0);
  if (outputs == 2) layer.SetOutput({layer.AsFloats(values[1]), input.rank}, 1);
}

void ArgSort(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const ValueId order = layer.Emit(
      "argsort",
      {{"x", input}, {"axis", Axis(layer.Int("axis"))}, {"ascending", Tensor::Bool(!layer.Bool("descending"))}});
  layer.SetOutput({layer.AsFloats(order), input.rank});
}

/// The axis is counted in the output. What an index below zero marks is not said anywhere; we mark nothing.
void OneHot(Layer& layer) {
  layer.Require(1, 2);
  const Blob input = layer.FullInput();
  const ValueId value = layer.Emit("one_hot", {{"indices", layer.Whole(input)},
                                               {"one_hot_vector_size", CountOf(layer, "oneHotVectorSize")},
                                               {"axis", Axis(layer.Int("axis"))},
                                               {"on_value", Tensor::Float(layer.Float("onValue"))},
                                               {"off_value", Tensor::Float(layer.Float("offValue"))}});
  layer.SetOutput({value, input.rank + 1});
}

constexpr char kScatter[] = "scatter";
constexpr char kScatterAlongAxis[] = "scatter_along_axis";

}  // namespace

LayerRules IndexLayers() {
  return {{"gather", Gather},
          {"gatherAlongAxis", GatherAlongAxis},
          {"gatherND", GatherNd},
          {"scatter", ScatterWithAxis<kScatter>},
          {"scatterAlongAxis", ScatterWithAxis<kScatterAlongAxis>},
          {"scatterND", ScatterNd},
          {"embedding", Embedding},
          {"embeddingND", EmbeddingNd},
          {"topK", TopK},
          {"argSort", ArgSort},
          {"oneHot", OneHot}};
}

}  // namespace ulmora::engine::program::layers
