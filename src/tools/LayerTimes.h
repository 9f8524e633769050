#pragma once
// Where the time of a run goes.

#include "engine/Model.h"

#include <ostream>
#include <string>
#include <vector>

namespace ulmora::tools {

/// The steps of one layer, or of all layers of a kind, summed up.
struct LayerTime {
  std::string name;     ///< "conv 'head'", or "conv"
  std::string runners;  ///< what runs the steps, each named once
  double milliseconds = 0;
};

/// For each step the median of several runs of the same steps.
[[nodiscard]] std::vector<engine::StepTime> MedianTimes(const std::vector<std::vector<engine::StepTime>>& runs);

/// The steps by layer, in the order of the run.
[[nodiscard]] std::vector<LayerTime> ByLayer(const std::vector<engine::StepTime>& steps);

/// The steps by kind of operation, most time first.
[[nodiscard]] std::vector<LayerTime> ByKind(const std::vector<engine::StepTime>& steps);

/// Runs the network several times on an input of this shape, filled with a ramp, and writes both tables. Throws
/// engine::Error(Run).
void WriteLayerTimes(std::ostream& stream, engine::Model& model, const engine::Shape& shape);

}  // namespace ulmora::tools
