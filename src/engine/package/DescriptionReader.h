#pragma once
// The interface and the metadata that a model declares.

#include "engine/package/ModelSource.h"

#include <map>
#include <string>
#include <vector>

namespace ulmora::coreml {
class ModelDescription;
}

namespace ulmora::engine::package {

/// What the description says of the function that is to be run.
struct Description {
  std::string functionName;  ///< "main" unless the model names another as its default
  std::vector<Feature> inputs;
  std::vector<Feature> outputs;
  std::map<std::string, std::string> metadata;
};

/// Reads the description. Throws Error(Open), naming the feature, for a missing or repeated name, an unknown element
/// type or an impossible shape; Error(Translate) if the default function is not described.
[[nodiscard]] Description ReadDescription(const coreml::ModelDescription& description);

}  // namespace ulmora::engine::package
