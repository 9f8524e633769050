#pragma once
// How the weights of a model are stored.

#include "engine/Inspection.h"
#include "engine/package/LayerStorage.h"
#include "engine/package/ModelSource.h"

#include <vector>

namespace ulmora::engine {

/// Sums up the constants of a program by the form in which they are stored, most bytes first. What an operation unpacks
/// counts as one weight with all that it is unpacked from. Scalars and short lists of integers (strides, shapes) are no
/// weights.
[[nodiscard]] std::vector<WeightForm> WeightFormsOf(const package::SourceProgram& program);

/// The same for the weights of layers.
[[nodiscard]] std::vector<WeightForm> WeightFormsOf(const std::vector<package::StoredWeights>& weights);

}  // namespace ulmora::engine
