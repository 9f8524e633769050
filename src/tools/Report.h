#pragma once
// What a person wants to see of a model.

#include "engine/Inspection.h"
#include "engine/Tensor.h"

#include <cstdint>
#include <ostream>
#include <string>

namespace ulmora::tools {

/// The multiply-adds of a run.
struct Cost {
  engine::Shape shape;  ///< of the input
  std::int64_t multiplyAdds = 0;
};

/// Writes type, versions, interface, metadata, operations and weights, and whether the engine can run it.
void WriteReport(std::ostream& stream, const std::string& path, const engine::Inspection& model);

/// Writes the multiply-adds.
void WriteCost(std::ostream& stream, const Cost& cost);

}  // namespace ulmora::tools
