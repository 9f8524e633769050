#pragma once
// What was read from a package, before any meaning: plain structs that know neither protobuf nor the operations.
// Both forms of an ML program (binary message and compiled text) end here.

#include "engine/Feature.h"
#include "engine/Tensor.h"

#include <cstdint>
#include <map>
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

/// Everything of an ML-program model that the engine uses.
struct ModelSource {
  std::int64_t specificationVersion = 0;
  std::vector<Feature> inputs;
  std::vector<Feature> outputs;
  std::map<std::string, std::string> metadata;  ///< author, license, versionString, shortDescription and user-defined
  SourceProgram program;
};

}  // namespace ulmora::engine::package
