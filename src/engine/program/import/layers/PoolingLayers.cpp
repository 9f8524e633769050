// pooling over height and width, and its kin over depth, too.

#include "engine/program/import/layers/Families.h"

#include <string>

namespace ulmora::engine::program::layers {
namespace {

std::string PoolOf(const std::string& type) {
  if (type == "MAX") return "max_pool";
  return type == "AVERAGE" ? "avg_pool" : "l2_pool";
}

/// The whole plane as one window.
ValueId PoolAll(Layer& layer, const Blob& input, const std::string& type, std::vector<std::int32_t> axes) {
  const char* const reduction = type == "MAX" ? "reduce_max" : type == "AVERAGE" ? "reduce_mean" : "reduce_l2_norm";
  return layer.Emit(reduction,
                    {{"x", input}, {"axes", Tensor::IntVector(std::move(axes))}, {"keep_dims", Tensor::Bool(true)}});
}

void AddPadding(const Layer& layer, Arguments& arguments) {
  if (layer.Has("same")) {
    const bool before = layer.Text("same.asymmetryMode") == "TOP_LEFT_HEAVY";
    arguments.emplace_back("pad_type", before ? "same_lower" : "same");
    return;
  }
  std::vector<std::int32_t> pads = layer.Borders("valid.paddingAmounts");
  if (layer.Has("includeLastPixel")) {
    const std::vector<std::int32_t> amounts = layer.Pair("includeLastPixel.paddingAmounts", 0);
    pads = {amounts[0], amounts[0], amounts[1], amounts[1]};
    arguments.emplace_back("ceil_mode", Tensor::Bool(true));
  }
  arguments.emplace_back("pad_type", "custom");
  arguments.emplace_back("pad", Tensor::IntVector(std::move(pads)));
}

void Pooling(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  const std::string& type = layer.Text("type");
  layer.RequireRank(input, 3);
  if (layer.Bool("globalPooling")) {
    SetLikeInput(layer, PoolAll(layer, input, type, {-2, -1}));
    return;
  }
  Arguments arguments = {{"x", layer.Planes(input)},
                         {"kernel_sizes", Tensor::IntVector(layer.Pair("kernelSize", 3))},
                         {"strides", Tensor::IntVector(layer.Pair("stride", 1))}};
  AddPadding(layer, arguments);
  if (type == "AVERAGE") {
    arguments.emplace_back("exclude_padding_from_average", Tensor::Bool(layer.Bool("avgPoolExcludePadding")));
  }
  layer.SetOutput(layer.FromPlanes(input, layer.Emit(PoolOf(type), std::move(arguments))));
}

Tensor Triple(const Layer& layer, const std::string& prefix) {
  std::vector<std::int32_t> sizes;
  for (const char* axis : {"Depth", "Height", "Width"}) {
    sizes.push_back(static_cast<std::int32_t>(layer.Int(prefix + axis)));
  }
  return Tensor::IntVector(std::move(sizes));
}

Blob VolumeOf(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  if (input.rank != 5) layer.Fail("has an input of rank " + std::to_string(input.rank) + ", expected 5");
  return input;
}

void Pooling3d(Layer& layer) {
  const Blob input = VolumeOf(layer);
  const std::string& type = layer.Text("type");
  Arguments arguments = {{"x", input}, {"kernel_sizes", Triple(layer, "kernel")}, {"strides", Triple(layer, "stride")}};
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
  if (type == "AVERAGE") {
    arguments.emplace_back("exclude_padding_from_average", Tensor::Bool(layer.Bool("countExcludePadding")));
  }
  layer.SetOutput({layer.Emit(PoolOf(type), std::move(arguments)), 5});
}

void GlobalPooling3d(Layer& layer) {
  const Blob input = VolumeOf(layer);
  layer.SetOutput({PoolAll(layer, input, layer.Text("type"), {-3, -2, -1}), 5});
}

}  // namespace

LayerRules PoolingLayers() {
  return {{"pooling", Pooling}, {"pooling3d", Pooling3d}, {"globalPooling3d", GlobalPooling3d}};
}

}  // namespace ulmora::engine::program::layers
