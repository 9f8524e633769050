#include "cli/FitsSamples.h"

#include <algorithm>
#include <cmath>

namespace ulmora::cli {
namespace {

/// Adds samples `first`, `first + step`, ... to a record.
InputRange MeasureEvery(std::span<const double> samples, std::size_t first, std::size_t step, double divisor) {
  InputRange range;
  for (std::size_t i = first; i < samples.size(); i += step) range.Add(samples[i], divisor);
  return range;
}

/// Columns and rows of the image that the axes describe.
cv::Size ImageSize(const FitsAxes& axes) {
  const std::size_t first = axes.Layout() == FitsChannelLayout::PlaneFirst ? 1 : 0;
  return {static_cast<int>(axes.lengths[first]), static_cast<int>(axes.lengths[first + 1])};
}

/// Builds an image of element type T from samples in file order, each passed through `convert`.
template <typename T, typename Convert>
cv::Mat BuildImage(std::span<const double> samples, const FitsAxes& axes, Convert convert) {
  const int channels = axes.Channels();
  cv::Mat image(ImageSize(axes), CV_MAKETYPE(cv::DataType<T>::depth, channels));
  const auto rowSamples = static_cast<std::size_t>(image.cols) * static_cast<std::size_t>(channels);
  const std::size_t planeSamples = image.total();
  for (int y = 0; y < image.rows; ++y) {
    T* row = image.ptr<T>(y);
    if (axes.Layout() != FitsChannelLayout::PlaneLast) {
      const double* source = samples.data() + static_cast<std::size_t>(y) * rowSamples;
      for (std::size_t i = 0; i < rowSamples; ++i) row[i] = convert(source[i]);
      continue;
    }
    const double* source = samples.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(image.cols);
    for (int x = 0; x < image.cols; ++x) {
      for (std::size_t c = 0; c < 3; ++c) *row++ = convert(source[c * planeSamples + static_cast<std::size_t>(x)]);
    }
  }
  return image;
}

}  // namespace

FitsChannelLayout FitsAxes::Layout() const {
  if (count == 2) return FitsChannelLayout::Mono;
  return lengths[2] == 3 ? FitsChannelLayout::PlaneLast : FitsChannelLayout::PlaneFirst;
}

bool FitsAxes::IsSupported() const {
  return count == 2 || lengths[2] == 3 || lengths[0] == 3;
}

FitsRanges MeasureFitsRanges(std::span<const double> samples, const FitsAxes& axes, double divisor) {
  FitsRanges ranges;
  if (axes.Layout() == FitsChannelLayout::PlaneFirst) {
    for (std::size_t c = 0; c < 3; ++c) ranges.channels.push_back(MeasureEvery(samples, c, 3, divisor));
  } else {
    const std::size_t plane = samples.size() / static_cast<std::size_t>(axes.Channels());
    for (int c = 0; c < axes.Channels(); ++c) {
      const auto part = samples.subspan(static_cast<std::size_t>(c) * plane, plane);
      ranges.channels.push_back(MeasureEvery(part, 0, 1, divisor));
    }
  }
  for (const InputRange& channel : ranges.channels) ranges.overall.Merge(channel);
  return ranges;
}

cv::Mat NormalizedFitsImage(std::span<const double> samples, const FitsAxes& axes, double scale) {
  return BuildImage<float>(samples, axes, [scale](double sample) {
    const auto narrowed = static_cast<float>(sample);
    return std::isfinite(narrowed) ? static_cast<float>(static_cast<double>(narrowed) * scale) : 0.0F;
  });
}

cv::Mat LinearFitsImage(std::span<const double> samples, const FitsAxes& axes, double divisor) {
  return BuildImage<double>(samples, axes, [divisor](double sample) { return std::min(sample / divisor, 1.0); });
}

std::vector<double> FlattenForFits(const cv::Mat& image, FitsChannelLayout layout) {
  const auto channels = static_cast<std::size_t>(image.channels());
  const std::size_t plane = image.total();
  std::vector<double> samples(plane * channels);
  for (int y = 0; y < image.rows; ++y) {
    const double* row = image.ptr<double>(y);
    const std::size_t first = static_cast<std::size_t>(y) * static_cast<std::size_t>(image.cols);
    if (channels == 1 || layout == FitsChannelLayout::PlaneFirst) {
      std::copy_n(row, static_cast<std::size_t>(image.cols) * channels,
                  samples.begin() + static_cast<std::ptrdiff_t>(first * channels));
      continue;
    }
    for (std::size_t x = 0; x < static_cast<std::size_t>(image.cols); ++x) {
      for (std::size_t c = 0; c < channels; ++c) samples[c * plane + first + x] = row[x * channels + c];
    }
  }
  return samples;
}

}  // namespace ulmora::cli
