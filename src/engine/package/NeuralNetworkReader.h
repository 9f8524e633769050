#pragma once
// The network of a model of the older type, as plain structs.

#include "engine/package/DescriptionReader.h"
#include "engine/package/ModelSource.h"

namespace ulmora::coreml {
class ModelDescription;
}
namespace ulmora::coreml::layers {
class Network;
}

namespace ulmora::engine::package {

/// Reads all layers, their parameters by name and their weights. Fields of messages within a layer's parameters come
/// under both names, "PReLU.alpha"; a message that is present stands as true under its own. Throws Error(Open) for
/// damage, Error(Translate) if a limit on counts is passed, Error(Load) for weights beyond the bound. Messages name the
/// layer.
[[nodiscard]] SourceNetwork ReadNeuralNetwork(const coreml::layers::Network& network);

/// Sets the inputs of `network` to what the model declares, dimensions that it leaves open unknown, and brings the
/// features of `description` into the same form. Throws Error(Translate), naming the feature, for an input that cannot
/// be an array of the network.
void ReadNetworkInterface(const coreml::ModelDescription& declared, Description& description, SourceNetwork& network);

}  // namespace ulmora::engine::package
