#include "engine/program/import/layers/Families.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace ulmora::engine::program::layers {
namespace {

LayerRules BuildTable() {
  LayerRules all;
  for (const LayerRules& family :
       {ActivationLayers(), ArithmeticLayers(), ConstantLayers(), ConvolutionLayers(), FunctionLayers(), IndexLayers(),
        JoinLayers(), LinearLayers(), LogicLayers(), NormalizationLayers(), PaddingLayers(), PoolingLayers(),
        ReductionLayers(), ResamplingLayers(), ReshapeLayers(), SliceLayers()}) {
    all.insert(all.end(), family.begin(), family.end());
  }
  std::ranges::sort(all, {}, &LayerRule::kind);
  const auto twin = std::ranges::adjacent_find(all, {}, &LayerRule::kind);
  if (twin != all.end()) throw std::logic_error("layer " + std::string(twin->kind) + " is translated twice");
  return all;
}

}  // namespace

const LayerRule* FindRule(std::string_view kind) {
  static const LayerRules table = BuildTable();
  const auto found = std::ranges::lower_bound(table, kind, {}, &LayerRule::kind);
  return found != table.end() && found->kind == kind ? &*found : nullptr;
}

}  // namespace ulmora::engine::program::layers
