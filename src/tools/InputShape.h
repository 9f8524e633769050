#pragma once
// Which shape to give to a network that may take many.

#include "engine/Model.h"

#include <cstdint>
#include <optional>

namespace ulmora::tools {

/// The shape that was asked for; else the declared one with 512 rows and columns if the network takes that; else the
/// declared one. Nothing if the model declares no shape and none was asked for.
[[nodiscard]] std::optional<engine::Shape> ShapeForTile(const engine::Model& model,
                                                        const std::optional<engine::Shape>& asked);

/// The shape for so many values: the one that was asked for; else the declared one if it has as many; else a square of
/// the declared number of channels, or of three. Throws engine::Error(Run) if there is none, or if the shape that was
/// asked for has another number of elements.
[[nodiscard]] engine::Shape ShapeForCount(const engine::Model& model, const std::optional<engine::Shape>& asked,
                                          std::int64_t count);

}  // namespace ulmora::tools
