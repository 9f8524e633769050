#pragma once
// Which operations run as one chain on runs of pixels, with nothing between them in memory.

#include "engine/cpu/Executable.h"
#include "engine/cpu/lower/PixelSteps.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/Program.h"

#include <map>
#include <vector>

namespace ulmora::engine::cpu {

/// The definition of the operation that stands for a region. Packages cannot name it; its operands are all values that
/// the steps read from outside, its one result is that of the last step.
[[nodiscard]] const program::OpDefinition& PixelRegionDefinition();

/// By the region's result: its steps in order.
using PixelRegions = std::map<program::ValueId, std::vector<ValueStep>>;

/// Given operations between images of the same pixels, at least one of them a 1x1 convolution, whose results serve
/// nothing else but each other and one last operation of them, result: that last operation alone, as a region.
[[nodiscard]] PixelRegions FormPixelRegions(program::Program& program, const ExecutableOptions& options);

}  // namespace ulmora::engine::cpu
