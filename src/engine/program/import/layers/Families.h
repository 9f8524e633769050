#pragma once
// The table of all kinds of layers that can be translated, one family per file.

#include "engine/program/import/layers/Layer.h"

#include <string_view>
#include <vector>

namespace ulmora::engine::program::layers {

/// How layers of one kind are translated: operations are appended, and every output is set.
struct LayerRule {
  std::string_view kind;  ///< the format's name
  void (*translate)(Layer& layer);
};

using LayerRules = std::vector<LayerRule>;

[[nodiscard]] LayerRules ActivationLayers();
[[nodiscard]] LayerRules ArithmeticLayers();
[[nodiscard]] LayerRules ConstantLayers();
[[nodiscard]] LayerRules ConvolutionLayers();
[[nodiscard]] LayerRules FunctionLayers();
[[nodiscard]] LayerRules IndexLayers();
[[nodiscard]] LayerRules JoinLayers();
[[nodiscard]] LayerRules LinearLayers();
[[nodiscard]] LayerRules LogicLayers();
[[nodiscard]] LayerRules NormalizationLayers();
[[nodiscard]] LayerRules PaddingLayers();
[[nodiscard]] LayerRules PoolingLayers();
[[nodiscard]] LayerRules ReductionLayers();
[[nodiscard]] LayerRules ResamplingLayers();
[[nodiscard]] LayerRules ReshapeLayers();
[[nodiscard]] LayerRules SliceLayers();

/// The rule of that kind, or null.
[[nodiscard]] const LayerRule* FindRule(std::string_view kind);

}  // namespace ulmora::engine::program::layers
