#pragma once
// Translates a neural network of the older type, as read from a model, into the intermediate form.

#include "engine/package/ModelSource.h"
#include "engine/program/Program.h"

namespace ulmora::engine::program {

/// Translates every layer into operations of the registry. All blobs are float32, numbers that stand for shapes,
/// indices or truth included. Networks whose arrays become [sequence, batch, C, H, W] run on [batch, C, H, W] as long
/// as no layer makes a sequence; that is also the form of their interface. If every input has a static shape, by itself
/// or as the default of its description, the program is specialized once for its checks alone, so that an impossible
/// network is refused when it is opened. Throws Error(Translate) naming the layer.
[[nodiscard]] Program ImportNeuralNetwork(const package::ModelSource& source);

}  // namespace ulmora::engine::program
