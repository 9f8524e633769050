// upsample, resizeBilinear, cropResize and reorganizeData: other grids of pixels.

#include "engine/program/import/layers/Families.h"

#include <string>

namespace ulmora::engine::program::layers {
namespace {

/// Whole factors, or fractional ones where those are given. Unset ones are 1.
std::vector<Tensor> Factors(const Layer& layer) {
  const std::vector<std::int32_t> whole = layer.Pair("scalingFactor", 1);
  const std::span<const float> fractional = layer.Weights("fractionalScalingFactor").floats();
  if (fractional.empty()) return {Tensor::Int(whole[0]), Tensor::Int(whole[1])};
  if (fractional.size() != 2) {
    layer.Fail("fractionalScalingFactor has " + std::to_string(fractional.size()) + " entries, expected 2");
  }
  return {Tensor::Float(fractional[0]), Tensor::Float(fractional[1])};
}

void Upsample(Layer& layer) {
  layer.Require(1, 1);
  layer.RequireRank(layer.Input(), 3);
  const std::vector<Tensor> factors = Factors(layer);
  Arguments arguments = {{"x", layer.Input()}, {"scale_factor_height", factors[0]}, {"scale_factor_width", factors[1]}};
  const bool bilinear = layer.Text("mode") == "BILINEAR";
  if (bilinear) {
    const std::string& grid = layer.Text("linearUpsampleMode");
    arguments.emplace_back("align_corners", Tensor::Bool(grid == "ALIGN_CORNERS_TRUE"));
    arguments.emplace_back("half_pixel_centers", Tensor::Bool(grid == "ALIGN_CORNERS_FALSE"));
  }
  SetLikeInput(layer, layer.Emit(bilinear ? "upsample_bilinear" : "upsample_nearest_neighbor", std::move(arguments)));
}

const char* GridNamed(const std::string& method) {
  if (method == "STRICT_ALIGN_ENDPOINTS_MODE") return "STRICT_ALIGN_CORNERS";
  if (method == "ALIGN_ENDPOINTS_MODE") return "ALIGN_CORNERS";
  return method == "UPSAMPLE_MODE" ? "DEFAULT" : "OFFSET_CORNERS";
}

const char* GridOf(const Layer& layer) {
  return GridNamed(layer.Has("mode") ? layer.Text("mode.samplingMethod") : "STRICT_ALIGN_ENDPOINTS_MODE");
}

void ResizeBilinear(Layer& layer) {
  layer.Require(1, 1);
  layer.RequireRank(layer.Input(), 3);
  const std::vector<std::int32_t> size = layer.Pair("targetSize", 1);
  SetLikeInput(layer, layer.Emit("resize_bilinear", {{"x", layer.Input()},
                                                     {"target_size_height", Tensor::Int(size[0])},
                                                     {"target_size_width", Tensor::Int(size[1])},
                                                     {"sampling_mode", GridOf(layer)}}));
}

/// Boxes [n, 1, 4 or 5, 1, 1], cut out of the planes of the first input and resized: [n, batch or 1, C, H, W].
void CropResize(Layer& layer) {
  layer.Require(2, 2);
  const std::vector<std::int32_t> size = layer.Pair("targetSize", 1);
  const std::string corners =
      layer.Has("boxIndicesMode") ? layer.Text("boxIndicesMode.boxMode") : "CORNERS_HEIGHT_FIRST";
  const ValueId value =
      layer.Emit("crop_resize", {{"x", layer.Planes(layer.Input(0))},
                                 {"roi", layer.FullInput(1)},
                                 {"target_height", Tensor::Int(size[0])},
                                 {"target_width", Tensor::Int(size[1])},
                                 {"normalized_coordinates", Tensor::Bool(layer.Bool("normalizedCoordinates"))},
                                 {"spatial_scale", Tensor::Float(layer.FloatOr("spatialScale", 1.0F))},
                                 {"box_coordinate_mode", corners},
                                 {"sampling_mode", GridOf(layer)}});
  layer.SetOutput({value, 5});
}

void ReorganizeData(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  const ValueId planes = layer.Planes(input);
  const Tensor block = Tensor::Int(static_cast<std::int32_t>(layer.Int("blockSize")));
  const std::string& mode = layer.Text("mode");
  ValueId value = planes;
  if (mode == "SPACE_TO_DEPTH") value = layer.Emit("space_to_depth", {{"x", planes}, {"block_size", block}});
  if (mode == "DEPTH_TO_SPACE") value = layer.Emit("depth_to_space", {{"x", planes}, {"block_size", block}});
  if (mode == "PIXEL_SHUFFLE") value = layer.Emit("pixel_shuffle", {{"x", planes}, {"upscale_factor", block}});
  layer.SetOutput(layer.FromPlanes(input, value));
}

}  // namespace

LayerRules ResamplingLayers() {
  return {{"upsample", Upsample},
          {"resizeBilinear", ResizeBilinear},
          {"cropResize", CropResize},
          {"reorganizeData", ReorganizeData}};
}

}  // namespace ulmora::engine::program::layers
