#pragma once
// Between the samples of a FITS image in file order and a cv::Mat, and what is told about them.

#include "cli/FitsMetadata.h"
#include "cli/InputRange.h"

#include <opencv2/core.hpp>

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace ulmora::cli {

/// The shape of a FITS image: its number of axes (2 or 3) and their lengths, each at least 1 where it exists.
struct FitsAxes {
  int count = 0;
  std::array<long, 3> lengths{};

  /// Channels for statistics: one for an image, three for every cube, also for one that will be refused.
  [[nodiscard]] int Channels() const { return count == 2 ? 1 : 3; }
  /// The layout that the axes ask for. A cube that is PlaneFirst by exclusion alone may have other than three channels.
  [[nodiscard]] FitsChannelLayout Layout() const;
  /// False for a cube that has three channels neither in its last nor in its first axis.
  [[nodiscard]] bool IsSupported() const;
};

/// Statistics of all samples and of each channel.
struct FitsRanges {
  InputRange overall;
  std::vector<InputRange> channels;
};

/// Measures samples in file order, in physical units, against the divisor.
[[nodiscard]] FitsRanges MeasureFitsRanges(std::span<const double> samples, const FitsAxes& axes, double divisor);

/// CV_32FC1 or CV_32FC3: each sample narrowed to float32, times `scale` in double precision, narrowed again. A sample
/// that leaves the range of float32 becomes 0. The axes must be supported.
[[nodiscard]] cv::Mat NormalizedFitsImage(std::span<const double> samples, const FitsAxes& axes, double scale);

/// CV_64FC1 or CV_64FC3: each sample divided by `divisor` and limited to at most 1. The axes must be supported.
[[nodiscard]] cv::Mat LinearFitsImage(std::span<const double> samples, const FitsAxes& axes, double divisor);

/// The samples of a CV_32F or CV_64F image of one or three channels in FITS order: rows for one channel, three planes
/// for three, three samples side by side for PlaneFirst.
[[nodiscard]] std::vector<double> FlattenForFits(const cv::Mat& image, FitsChannelLayout layout);

}  // namespace ulmora::cli
