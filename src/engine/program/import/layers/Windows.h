#pragma once
// What layers that move a window over planes or volumes have in common: its sizes and the padding.

#include "engine/program/import/layers/Layer.h"

#include <cstdint>
#include <string>

namespace ulmora::engine::program::layers {

/// Adds how planes are padded: pad_type, and pad where the layer has amounts of its own. Neither kind of padding means
/// none at all.
void AddPlanePadding(const Layer& layer, Arguments& arguments);

/// The same for volumes, whose layers have a parameter for each of the six sides.
void AddVolumePadding(const Layer& layer, Arguments& arguments);

/// Depth, height and width of a family of parameters, "stride" for example; `whatZeroMeans` where one is 0.
[[nodiscard]] Tensor VolumeSizes(const Layer& layer, const std::string& family, std::int32_t whatZeroMeans);

/// The layer's only input, which must be a volume [N, C, D, H, W].
[[nodiscard]] Blob VolumeInput(Layer& layer);

}  // namespace ulmora::engine::program::layers
