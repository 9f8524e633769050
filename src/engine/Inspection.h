#pragma once
// What is in a model, for people: also in one that the engine cannot run, as far as it can be read.

#include "engine/Feature.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace ulmora::engine {

/// Weights that are stored in the same way.
struct WeightForm {
  std::string form;  ///< "float16", "palettized (uint4)", ...
  std::int64_t tensors = 0;
  std::int64_t elements = 0;  ///< of the weights that they stand for
  std::int64_t bytes = 0;     ///< as stored, tables and scales included; shared ones count once
};

struct Inspection {
  std::string bundle;  ///< "package (.mlpackage)", ...
  std::string type;    ///< "ML program", ...
  std::int64_t specificationVersion = 0;
  std::string operationSet;  ///< "CoreML5" and up; empty if the type has none
  std::vector<Feature> inputs;
  std::vector<Feature> outputs;
  std::map<std::string, std::string> metadata;
  std::map<std::string, std::int64_t> operations;  ///< how many of each, constants left out
  std::vector<WeightForm> weights;                 ///< most bytes first
  std::string refusal;                             ///< why the engine cannot run it; empty if it can
};

/// Reads the model at `path` and tries what the engine does with it short of running it. Throws Error if it cannot even
/// be read.
[[nodiscard]] Inspection Inspect(const std::filesystem::path& path);

}  // namespace ulmora::engine
