#include "engine/program/import/layers/Windows.h"

#include <utility>

namespace ulmora::engine::program::layers {

void AddPlanePadding(const Layer& layer, Arguments& arguments) {
  if (layer.Has("same")) {
    const bool before = layer.Text("same.asymmetryMode") == "TOP_LEFT_HEAVY";
    arguments.emplace_back("pad_type", before ? "same_lower" : "same");
    return;
  }
  arguments.emplace_back("pad_type", "custom");
  arguments.emplace_back("pad", Tensor::IntVector(layer.Borders("valid.paddingAmounts")));
}

void AddVolumePadding(const Layer& layer, Arguments& arguments) {
  if (layer.Text("paddingType") != "CUSTOM") {
    arguments.emplace_back("pad_type", layer.Text("paddingType") == "SAME" ? "same" : "valid");
    return;
  }
  std::vector<std::int32_t> pads;
  for (const char* side : {"Front", "Back", "Top", "Bottom", "Left", "Right"}) {
    pads.push_back(static_cast<std::int32_t>(layer.Int(std::string("customPadding") + side)));
  }
  arguments.emplace_back("pad_type", "custom");
  arguments.emplace_back("pad", Tensor::IntVector(std::move(pads)));
}

Tensor VolumeSizes(const Layer& layer, const std::string& family, std::int32_t whatZeroMeans) {
  std::vector<std::int32_t> sizes;
  for (const char* axis : {"Depth", "Height", "Width"}) {
    const auto size = static_cast<std::int32_t>(layer.Int(family + axis));
    sizes.push_back(size == 0 ? whatZeroMeans : size);
  }
  return Tensor::IntVector(std::move(sizes));
}

Blob VolumeInput(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  if (input.rank != 5) layer.Fail("has an input of rank " + std::to_string(input.rank) + ", expected 5");
  return input;
}

}  // namespace ulmora::engine::program::layers
