#include "cli/InputRange.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>

namespace ulmora::cli {

void InputRange::Add(double sample, double scale) {
  ++samples;
  if (!std::isfinite(sample)) return;
  ++finite;
  minimum = std::min(minimum, sample);
  maximum = std::max(maximum, sample);
  if (sample / scale < 0.0) ++belowZero;
  if (sample / scale > 1.0) ++aboveOne;
}

void InputRange::Merge(const InputRange& other) {
  samples += other.samples;
  finite += other.finite;
  belowZero += other.belowZero;
  aboveOne += other.aboveOne;
  minimum = std::min(minimum, other.minimum);
  maximum = std::max(maximum, other.maximum);
}

std::string InputRange::Describe(double scale) const {
  std::ostringstream text;
  text << std::setprecision(17);
  text << "scalar_samples=" << samples << " finite=" << finite << " nonfinite=" << samples - finite;
  if (finite != 0) {
    text << " physical_range=[" << minimum << ',' << maximum << "] type_normalized_range=[" << minimum / scale << ','
         << maximum / scale << ']';
  } else {
    text << " physical_range=unavailable type_normalized_range=unavailable";
  }
  const double percent = samples != 0 ? 100.0 / static_cast<double>(samples) : 0.0;
  text << " below_zero=" << belowZero << " (" << percent * static_cast<double>(belowZero) << "%) above_one=" << aboveOne
       << " (" << percent * static_cast<double>(aboveOne) << "%)";
  return text.str();
}

}  // namespace ulmora::cli
