#pragma once
// What a person wants to see of a model.

#include "engine/Model.h"

#include <ostream>
#include <string>

namespace ulmora::tools {

/// Writes type, versions, interface, metadata, operations and weights, and whether the engine can run it.
void WriteReport(std::ostream& stream, const std::string& path, const engine::Inspection& model);

/// Writes the multiply-adds for an input of this shape.
void WriteCost(std::ostream& stream, const engine::Model& model, const engine::Shape& shape);

}  // namespace ulmora::tools
