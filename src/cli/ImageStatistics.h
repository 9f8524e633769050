#pragma once
// Range statistics of a decoded image for the diagnostics of its reading.

#include "cli/InputRange.h"

#include <opencv2/core.hpp>

#include <vector>

namespace ulmora::cli {

struct ImageRanges {
  InputRange overall;
  std::vector<InputRange> channels;  ///< in the image's own channel order
};

/// Statistics over all samples of an image of any depth and channel count, in stored units; `scale` is the fixed
/// divisor of its sample format, so for unsigned integers at least their top value.
[[nodiscard]] ImageRanges MeasureRanges(const cv::Mat& image, double scale);

}  // namespace ulmora::cli
