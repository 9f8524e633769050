#pragma once
// What was read from a package, before any meaning: plain structs that know neither protobuf nor the operations.
// Both forms of an ML program (binary message and compiled text) end here.

#include "engine/Feature.h"
#include "engine/Tensor.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ulmora::engine::package {

/// One binding of an argument: the name of a value, or an inline constant.
using Binding = std::variant<std::string, Tensor>;

/// A named, typed value: a function input or an operation's result.
struct NamedType {
  std::string name;
  TensorType type;
  bool isTensor = true;  ///< false for lists, tuples, dictionaries and states, which image networks never have
};

/// One operation as written. `const` operations keep their payload in `attributes["val"]`.
struct SourceOperation {
  std::string type;                                    ///< "conv", "const", ...
  std::string name;                                    ///< informative; falls back to the first result's name
  std::map<std::string, std::vector<Binding>> inputs;  ///< more than one binding: a variadic tuple
  std::map<std::string, Tensor> attributes;            ///< all but "name"
  std::vector<NamedType> results;
  bool hasBlocks = false;  ///< control flow
};

/// One function of an ML program, the block of its opset already chosen.
struct SourceProgram {
  std::string opset;  ///< "CoreML5" to "CoreML9"
  std::vector<NamedType> inputs;
  std::vector<SourceOperation> operations;
  std::vector<std::string> outputs;
};

/// One layer of a neural network as written.
struct SourceLayer {
  std::string kind;  ///< the format's name, "convolution"; empty if it has none
  std::string name;  ///< informative
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
  std::vector<std::int32_t> outputRanks;  ///< of the first outputs, where the layer tells them; a hint
  std::map<std::string, Tensor> parameters;
};

/// A network of the older type: layers in an order in which they can run.
struct SourceNetwork {
  /// True if arrays of the interface are taken as they are; else they become [sequence, batch, C, H, W].
  bool exactArrays = false;
  bool exactImages = false;  ///< the same for images: [1, C, H, W], or [1, 1, C, H, W]
  /// As the network takes them, but never with a sequence: [C] and [C, H, W] that are not taken as they are stand as
  /// [1, C, 1, 1] and [1, C, H, W]. Features of the model have the same form.
  std::vector<NamedType> inputs;
  std::vector<SourceLayer> layers;
};

/// Everything of a model that the engine uses.
struct ModelSource {
  std::int64_t specificationVersion = 0;
  std::vector<Feature> inputs;
  std::vector<Feature> outputs;
  std::map<std::string, std::string> metadata;  ///< author, license, versionString, shortDescription and user-defined
  SourceProgram program;
  std::optional<SourceNetwork> network;  ///< set for neural networks, which have no program
};

}  // namespace ulmora::engine::package
