// innerProduct and batchedMatmul: products with matrices.

#include "engine/program/import/layers/Families.h"

namespace ulmora::engine::program::layers {
namespace {

Arguments WithMatrix(const Layer& layer, ValueId x) {
  Arguments arguments = {{"x", x}, {"weight", layer.Weights("weights")}};
  if (layer.Bool("hasBias")) arguments.emplace_back("bias", layer.Weights("bias"));
  return arguments;
}

/// [..., C, H, W] is a vector of all three and becomes [..., outputs, 1, 1]; of lower ranks the last dimension counts.
void InnerProduct(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  if (input.LogicalRank() < 4) {
    SetLikeInput(layer, layer.Emit("linear", WithMatrix(layer, input.value)));
    return;
  }
  const ValueId rows = layer.Emit("flatten2d", {{"x", layer.Planes(input)}, {"axis", Axis(1)}});
  const ValueId product = layer.Emit("linear", WithMatrix(layer, rows));
  const ValueId planes = layer.Emit("expand_dims", {{"x", product}, {"axes", Tensor::IntVector({2, 3})}});
  layer.SetOutput(layer.FromPlanes(input, planes));
}

/// The last two dimensions of a blob, which has them, the other way round.
ValueId Transposed(Layer& layer, const Blob& blob) {
  std::vector<std::int32_t> order;
  for (std::size_t i = 0; i < blob.rank; ++i) order.push_back(static_cast<std::int32_t>(i));
  std::swap(order[blob.rank - 1], order[blob.rank - 2]);
  return layer.Emit("transpose", {{"x", blob}, {"perm", Tensor::IntVector(std::move(order))}});
}

/// Two inputs are multiplied with each other, one with the layer's matrix.
void BatchedMatmul(Layer& layer) {
  layer.Require(1, 2);
  const Blob a = layer.FullInput(0);
  layer.RequireRank(a, 2);
  if (layer.InputCount() == 1) {
    const ValueId x = layer.Bool("transposeA") ? Transposed(layer, a) : a.value;
    layer.SetOutput({layer.Emit("linear", WithMatrix(layer, x)), a.rank});
    return;
  }
  const Blob b = layer.FullInput(1);
  layer.RequireRank(b, 2);
  const ValueId product = layer.Emit("matmul", {{"x", a},
                                                {"y", b},
                                                {"transpose_x", Tensor::Bool(layer.Bool("transposeA"))},
                                                {"transpose_y", Tensor::Bool(layer.Bool("transposeB"))}});
  layer.SetOutput(BroadcastOf({a, b}, product));
}

}  // namespace

LayerRules LinearLayers() {
  return {{"innerProduct", InnerProduct}, {"batchedMatmul", BatchedMatmul}};
}

}  // namespace ulmora::engine::program::layers
