// pooling over height and width, and its kin over depth, too.

#include "engine/program/import/layers/Families.h"
#include "engine/program/import/layers/Windows.h"

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

/// Windows that reach over the end, so that they include the last element.
void AddLastPixelPadding(const Layer& layer, Arguments& arguments) {
  const std::vector<std::int32_t> amounts = layer.Pair("includeLastPixel.paddingAmounts", 0);
  arguments.emplace_back("ceil_mode", Tensor::Bool(true));
  arguments.emplace_back("pad_type", "custom");
  arguments.emplace_back("pad", Tensor::IntVector({amounts[0], amounts[0], amounts[1], amounts[1]}));
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
  if (layer.Has("includeLastPixel")) {
    AddLastPixelPadding(layer, arguments);
  } else {
    AddPlanePadding(layer, arguments);
  }
  if (type == "AVERAGE") {
    arguments.emplace_back("exclude_padding_from_average", Tensor::Bool(layer.Bool("avgPoolExcludePadding")));
  }
  layer.SetOutput(layer.FromPlanes(input, layer.Emit(PoolOf(type), std::move(arguments))));
}

void Pooling3d(Layer& layer) {
  const Blob input = VolumeInput(layer);
  const std::string& type = layer.Text("type");
  Arguments arguments = {
      {"x", input}, {"kernel_sizes", VolumeSizes(layer, "kernel", 0)}, {"strides", VolumeSizes(layer, "stride", 1)}};
  AddVolumePadding(layer, arguments);
  if (type == "AVERAGE") {
    arguments.emplace_back("exclude_padding_from_average", Tensor::Bool(layer.Bool("countExcludePadding")));
  }
  layer.SetOutput({layer.Emit(PoolOf(type), std::move(arguments)), 5});
}

void GlobalPooling3d(Layer& layer) {
  const Blob input = VolumeInput(layer);
  layer.SetOutput({PoolAll(layer, input, layer.Text("type"), {-3, -2, -1}), 5});
}

}  // namespace

LayerRules PoolingLayers() {
  return {{"pooling", Pooling}, {"pooling3d", Pooling3d}, {"globalPooling3d", GlobalPooling3d}};
}

}  // namespace ulmora::engine::program::layers
