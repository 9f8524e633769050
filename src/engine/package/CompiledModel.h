#pragma once
// Compiled bundles: the program as text, the weight file as packages have it, and a description for people.

#include "engine/package/Bundle.h"
#include "engine/package/ModelSource.h"

namespace ulmora::engine::package {

/// Reads the compiled ML program of a bundle. The interface is that of metadata.json if the bundle has one, else that
/// of the function itself. Throws Error(Open) for damage, with line and column where it is in the program, and what the
/// readers of the parts throw.
[[nodiscard]] ModelSource ReadCompiledModel(const Bundle& bundle);

}  // namespace ulmora::engine::package
