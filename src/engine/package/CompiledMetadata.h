#pragma once
// metadata.json of a compiled bundle: the interface in the order of the model's author, and what is said about it.

#include "engine/Feature.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace ulmora::engine::package {

/// What the file says. All of it may be absent; the program itself says enough to be run.
struct CompiledMetadata {
  std::int64_t specificationVersion = 0;  ///< 0 if it is not said
  std::string functionName;               ///< of the default function; empty if it is not said
  std::vector<Feature> inputs;
  std::vector<Feature> outputs;
  std::map<std::string, std::string> metadata;
};

/// Reads the file, an array of one object, and takes the interface of the default function if there are several.
/// Members of unknown names are left out. Throws Error(Open), naming the file, if it cannot be read, is no such JSON
/// document, or describes features with unknown types or impossible shapes.
[[nodiscard]] CompiledMetadata ReadCompiledMetadata(const std::filesystem::path& file);

}  // namespace ulmora::engine::package
