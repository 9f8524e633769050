#pragma once
// How the weights of an ML program are stored.

#include "engine/Inspection.h"
#include "engine/package/ModelSource.h"

#include <vector>

namespace ulmora::engine {

/// Sums up the constants of a program by the form in which they are stored, most bytes first. What an operation unpacks
/// counts as one weight with all that it is unpacked from. Scalars and short lists of integers (strides, shapes) are no
/// weights.
[[nodiscard]] std::vector<WeightForm> WeightFormsOf(const package::SourceProgram& program);

}  // namespace ulmora::engine
