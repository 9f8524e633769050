#pragma once
// How the weights of a neural network are stored, for people: the reader of networks decodes them and forgets it.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ulmora::engine::package {

/// One constant of a layer.
struct StoredWeights {
  std::string form;           ///< "float16", "quantized (uint4)", "palettized (uint2)", ...
  std::int64_t elements = 0;  ///< that it stands for
  std::int64_t bytes = 0;     ///< tables and scales included
};

/// The weights of all layers, constants that are loaded included; nothing of a model that is no neural network. Throws
/// what ReadModel does for messages and weights that cannot be read.
[[nodiscard]] std::vector<StoredWeights> ReadLayerStorage(const std::filesystem::path& path);

}  // namespace ulmora::engine::package
