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

/// What runs of a network took.
struct RunTimes {
  engine::Shape shape;                  ///< of the input
  double firstRunMilliseconds = 0;      ///< preparation included
  std::vector<engine::StepTime> steps;  ///< of later runs, the median of each
};

/// Runs the network several times on an input of this shape, filled with a ramp. Throws engine::Error(Run).
[[nodiscard]] RunTimes MeasureTimes(engine::Model& model, const engine::Shape& shape);

/// Writes the times by layer and by kind.
void WriteLayerTimes(std::ostream& stream, const RunTimes& times);

}  // namespace ulmora::tools
