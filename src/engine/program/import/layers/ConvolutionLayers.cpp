// convolution and convolution3d, which may deconvolve.

#include "engine/program/import/layers/Families.h"
#include "engine/program/import/layers/Windows.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program::layers {
namespace {

Argument Groups(const Layer& layer) {
  return Tensor::Int(static_cast<std::int32_t>(std::max<std::int64_t>(1, layer.Int("nGroups"))));
}

/// The weights, constants of the layer or its second input, and the bias.
void AddWeights(Layer& layer, Arguments& arguments) {
  if (layer.InputCount() > 1) {
    const Blob weights = layer.FullInput(1);
    layer.RequireRank(weights, 4);
    arguments.emplace_back("weight", weights);
  } else {
    arguments.emplace_back("weight", layer.Weights("weights"));
  }
  if (layer.Bool("hasBias")) arguments.emplace_back("bias", layer.Weights("bias"));
}

/// Adds the shape of a deconvolution's result if the layer fixes its size, which then decides how much is cut off the
/// ends, the odd element at the far one. What goes beyond the reach of the kernel is added at the far end, as PyTorch
/// does it: the format does not say. Returns false if the layer leaves the size open. Fails for another number of
/// sizes than `axes`.
bool AddOutputShape(Layer& layer, ValueId x, std::size_t axes, Arguments& arguments) {
  const std::vector<std::int32_t> sizes = layer.Ints("outputShape");
  if (sizes.empty()) return false;
  if (sizes.size() != axes) {
    layer.Fail("outputShape has " + std::to_string(sizes.size()) + " entries, expected " + std::to_string(axes));
  }
  std::vector<std::int32_t> known = {static_cast<std::int32_t>(layer.Int("outputChannels"))};
  known.insert(known.end(), sizes.begin(), sizes.end());
  const ValueId batch = layer.Sizes(x, 0, 1);
  arguments.emplace_back("pad_type", "same");
  arguments.emplace_back("output_shape", layer.JoinedSizes({batch, layer.Constant(Tensor::IntVector(known))}));
  return true;
}

void Convolution(Layer& layer) {
  layer.Require(1, 2);
  const ValueId x = layer.Planes(layer.Input());
  const bool transposed = layer.Bool("isDeconvolution");
  Arguments arguments = {{"x", x}, {"groups", Groups(layer)}, {"strides", Tensor::IntVector(layer.Pair("stride", 1))}};
  AddWeights(layer, arguments);
  if (!transposed) arguments.emplace_back("dilations", Tensor::IntVector(layer.Pair("dilationFactor", 1)));
  if (!transposed || !AddOutputShape(layer, x, 2, arguments)) AddPlanePadding(layer, arguments);
  const ValueId result = layer.Emit(transposed ? "conv_transpose" : "conv", std::move(arguments));
  layer.SetOutput(layer.FromPlanes(layer.Input(), result));
}

void Convolution3d(Layer& layer) {
  const Blob input = VolumeInput(layer);
  const bool transposed = layer.Bool("isDeconvolution");
  Arguments arguments = {{"x", input}, {"groups", Groups(layer)}, {"strides", VolumeSizes(layer, "stride", 1)}};
  AddWeights(layer, arguments);
  if (!transposed) arguments.emplace_back("dilations", VolumeSizes(layer, "dilation", 1));
  if (!transposed || !AddOutputShape(layer, input.value, 3, arguments)) AddVolumePadding(layer, arguments);
  layer.SetOutput({layer.Emit(transposed ? "conv_transpose" : "conv", std::move(arguments)), 5});
}

}  // namespace

LayerRules ConvolutionLayers() {
  return {{"convolution", Convolution}, {"convolution3d", Convolution3d}};
}

}  // namespace ulmora::engine::program::layers
