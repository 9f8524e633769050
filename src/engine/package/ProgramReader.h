#pragma once
// The program part of a model message, as plain structs.

#include "engine/package/ConstantReader.h"
#include "engine/package/ModelSource.h"

#include <string>

namespace ulmora::coreml {
class Program;
}

namespace ulmora::engine::package {

/// The function of that name, with the block that its operation set selects. Throws Error(Translate) if the function or
/// that block is missing or if a limit on counts is passed, Error(Open) for damage, and what ConstantReader throws.
/// Messages name the operation.
[[nodiscard]] SourceProgram ReadProgram(const coreml::Program& program, const std::string& functionName,
                                        ConstantReader& constants);

}  // namespace ulmora::engine::package
