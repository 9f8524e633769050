#pragma once
// Regions of operations on pixels as runs through kernels of ours.

#include "engine/cpu/Lowering.h"
#include "engine/cpu/lower/PixelSteps.h"

#include <vector>

namespace ulmora::engine::cpu {

/// The forms of a region with these steps, in both layouts of channels.
[[nodiscard]] std::vector<Form> PixelRegionForms(const program::Program& program, const program::Operation& region,
                                                 const std::vector<ValueStep>& steps);

}  // namespace ulmora::engine::cpu
