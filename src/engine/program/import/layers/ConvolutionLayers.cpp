// convolution, which may deconvolve, and convolution3d.

#include "engine/program/import/layers/Families.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program::layers {
namespace {

/// How the data is padded, in the words of the operations.
struct Border {
  std::string type = "custom";
  std::vector<std::int32_t> pads = {0, 0, 0, 0};  ///< before and after, of each axis
};

/// Neither kind of padding means none at all.
Border BorderOf(const Layer& layer) {
  if (!layer.Has("same")) return {"custom", layer.Borders("valid.paddingAmounts")};
  const bool before = layer.Text("same.asymmetryMode") == "TOP_LEFT_HEAVY";
  return {before ? "same_lower" : "same"};
}

std::int32_t Groups(const Layer& layer) {
  return static_cast<std::int32_t>(std::max<std::int64_t>(1, layer.Int("nGroups")));
}

/// The first input as planes, and the weights: constants of the layer, or its second input.
Arguments Operands(Layer& layer) {
  Arguments arguments = {{"x", layer.Planes(layer.Input())}, {"groups", Tensor::Int(Groups(layer))}};
  if (layer.InputCount() > 1) {
    const Blob weights = layer.FullInput(1);
    layer.RequireRank(weights, 4);
    arguments.emplace_back("weight", weights);
  } else {
    arguments.emplace_back("weight", layer.Weights("weights"));
  }
  if (layer.Bool("hasBias")) arguments.emplace_back("bias", layer.Weights("bias"));
  return arguments;
}

/// Cuts the last two dimensions down to `size`, the odd element of what goes at the end. What there is to cut depends
/// on the size of the input, so it is computed where that is known.
ValueId CutToSize(Layer& layer, ValueId planes, const std::vector<std::int32_t>& size) {
  const ValueId shape = layer.Emit("shape", {{"x", planes}});
  const ValueId plane =
      layer.Emit("slice_by_index", {{"x", shape}, {"begin", Tensor::IntVector({2})}, {"end", Tensor::IntVector({4})}});
  const ValueId excess = layer.Emit("sub", {{"x", plane}, {"y", Tensor::IntVector(size)}});
  const ValueId half = layer.Emit("floor_div", {{"x", excess}, {"y", Tensor::Int(2)}});
  // An excess below zero stays an error: there is nothing to cut.
  const ValueId begin = layer.Emit(
      "concat", {{"values", program::Operands{layer.Constant(Tensor::IntVector({0, 0})), half}}, {"axis", Axis(0)}});
  return layer.Emit("slice_by_size",
                    {{"x", planes}, {"begin", begin}, {"size", Tensor::IntVector({-1, -1, size[0], size[1]})}});
}

ValueId Deconvolve(Layer& layer, Arguments arguments) {
  const std::vector<std::int32_t> size = layer.Ints("outputShape");
  if (size.empty()) {
    Border border = BorderOf(layer);
    arguments.emplace_back("pad_type", border.type);
    if (border.type == "custom") arguments.emplace_back("pad", Tensor::IntVector(border.pads));
    return layer.Emit("conv_transpose", std::move(arguments));
  }
  const ValueId whole = layer.Emit("conv_transpose", std::move(arguments));
  return CutToSize(layer, whole, layer.Pair("outputShape", 0));
}

void Convolution(Layer& layer) {
  layer.Require(1, 2);
  Arguments arguments = Operands(layer);
  arguments.emplace_back("strides", Tensor::IntVector(layer.Pair("stride", 1)));
  if (layer.Bool("isDeconvolution")) {
    const ValueId result = Deconvolve(layer, std::move(arguments));
    layer.SetOutput(layer.FromPlanes(layer.Input(), result));
    return;
  }
  const Border border = BorderOf(layer);
  arguments.emplace_back("dilations", Tensor::IntVector(layer.Pair("dilationFactor", 1)));
  arguments.emplace_back("pad_type", border.type);
  if (border.type == "custom") arguments.emplace_back("pad", Tensor::IntVector(border.pads));
  layer.SetOutput(layer.FromPlanes(layer.Input(), layer.Emit("conv", std::move(arguments))));
}

/// Depth, height and width of a parameter family, zeros standing for `fallback`.
Tensor Triple(const Layer& layer, const std::string& prefix, std::int32_t fallback) {
  std::vector<std::int32_t> sizes;
  for (const char* axis : {"Depth", "Height", "Width"}) {
    const auto size = static_cast<std::int32_t>(layer.Int(prefix + axis));
    sizes.push_back(size == 0 ? fallback : size);
  }
  return Tensor::IntVector(std::move(sizes));
}

void Convolution3d(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  if (input.rank != 5) layer.Fail("has an input of rank " + std::to_string(input.rank) + ", expected 5");
  if (!layer.Ints("outputShape").empty()) layer.Fail("fixes the size of its output, which is not supported");
  Arguments arguments = {{"x", input},
                         {"weight", layer.Weights("weights")},
                         {"groups", Tensor::Int(Groups(layer))},
                         {"strides", Triple(layer, "stride", 1)}};
  if (layer.Bool("hasBias")) arguments.emplace_back("bias", layer.Weights("bias"));
  if (layer.Text("paddingType") == "CUSTOM") {
    std::vector<std::int32_t> pads;
    for (const char* side : {"Front", "Back", "Top", "Bottom", "Left", "Right"}) {
      pads.push_back(static_cast<std::int32_t>(layer.Int(std::string("customPadding") + side)));
    }
    arguments.emplace_back("pad_type", "custom");
    arguments.emplace_back("pad", Tensor::IntVector(std::move(pads)));
  } else {
    arguments.emplace_back("pad_type", layer.Text("paddingType") == "SAME" ? "same" : "valid");
  }
  const bool transposed = layer.Bool("isDeconvolution");
  if (!transposed) arguments.emplace_back("dilations", Triple(layer, "dilation", 1));
  layer.SetOutput({layer.Emit(transposed ? "conv_transpose" : "conv", std::move(arguments)), 5});
}

}  // namespace

LayerRules ConvolutionLayers() {
  return {{"convolution", Convolution}, {"convolution3d", Convolution3d}};
}

}  // namespace ulmora::engine::program::layers
