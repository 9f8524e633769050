#pragma once
// Translates an ML program, as read from a package, into the intermediate form.

#include "engine/package/ModelSource.h"
#include "engine/program/Program.h"

namespace ulmora::engine::program {

/// Checks every operation against the registry: known, required parameters present, no unknown ones, names defined
/// before use and once. Dimensions stay unknown where the package leaves them open. If every input has a static shape,
/// declared by the program or as the default of its description, the program is specialized once for its checks alone,
/// so that an impossible network is refused when it is opened. Inputs and outputs keep the order of the function.
/// Throws Error(Translate) naming the operation.
[[nodiscard]] Program ImportMil(const package::ModelSource& source);

}  // namespace ulmora::engine::program
