#include "cli/FitsSamples.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

namespace ulmora::cli {
namespace {

/// Samples `first`, `first + step`, ... of a sequence.
struct Strided {
  const double* samples;
  std::size_t count;
  std::size_t step;

  double operator[](std::size_t i) const { return samples[i * step]; }
};

/// The plain way, one sample after the other.
InputRange MeasureEach(Strided samples, double divisor) {
  InputRange range;
  for (std::size_t i = 0; i < samples.count; ++i) range.Add(samples[i], divisor);
  return range;
}

/// Zeros of both signs are equal, but not when they are printed: the first one counts.
double FirstOfEqual(Strided samples, double value) {
  if (value != 0.0) return value;
  std::size_t i = 0;
  while (samples[i] != 0.0) ++i;
  return samples[i];
}

template <typename Predicate>
std::uint64_t CountIf(Strided samples, Predicate predicate) {
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < samples.count; ++i) count += predicate(samples[i]) ? 1U : 0U;
  return count;
}

/// The same as MeasureEach. Nearly all images are finite and lie between 0 and 1, so one pass finds the extrema, in
/// lanes that do not wait for one another, and only what the extrema ask for is counted.
InputRange Measure(Strided samples, double divisor) {
  constexpr std::size_t kLanes = 4;
  std::array<double, kLanes> least;
  std::array<double, kLanes> greatest;
  std::array<std::uint64_t, kLanes> finite{};
  least.fill(std::numeric_limits<double>::infinity());
  greatest.fill(-std::numeric_limits<double>::infinity());
  const std::size_t whole = samples.count / kLanes * kLanes;
  for (std::size_t i = 0; i < whole; i += kLanes) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
      const double sample = samples[i + lane];
      least[lane] = sample < least[lane] ? sample : least[lane];
      greatest[lane] = sample > greatest[lane] ? sample : greatest[lane];
      finite[lane] += std::abs(sample) <= std::numeric_limits<double>::max() ? 1U : 0U;
    }
  }
  if (std::accumulate(finite.begin(), finite.end(), std::uint64_t{0}) != whole) return MeasureEach(samples, divisor);
  InputRange range =
      MeasureEach({samples.samples + whole * samples.step, samples.count - whole, samples.step}, divisor);
  if (range.finite != range.samples) return MeasureEach(samples, divisor);
  if (whole == 0) return range;
  range.samples = range.finite = samples.count;
  range.minimum = FirstOfEqual(samples, std::min(range.minimum, *std::min_element(least.begin(), least.end())));
  range.maximum = FirstOfEqual(samples, std::max(range.maximum, *std::max_element(greatest.begin(), greatest.end())));
  const auto below = [divisor](double sample) { return sample / divisor < 0.0; };
  const auto above = [divisor](double sample) { return sample / divisor > 1.0; };
  range.belowZero = below(range.minimum) ? CountIf(samples, below) : 0;
  range.aboveOne = above(range.maximum) ? CountIf(samples, above) : 0;
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
    for (std::size_t c = 0; c < 3; ++c) {
      const double* plane = source + c * planeSamples;
      for (std::size_t x = 0; x < static_cast<std::size_t>(image.cols); ++x) row[3 * x + c] = convert(plane[x]);
    }
  }
  return image;
}

template <typename T>
std::vector<double> Flatten(const cv::Mat& image, FitsChannelLayout layout) {
  const auto channels = static_cast<std::size_t>(image.channels());
  const auto columns = static_cast<std::size_t>(image.cols);
  const std::size_t plane = image.total();
  std::vector<double> samples(plane * channels);
  for (int y = 0; y < image.rows; ++y) {
    const T* row = image.ptr<T>(y);
    const std::size_t first = static_cast<std::size_t>(y) * columns;
    if (channels == 1 || layout == FitsChannelLayout::PlaneFirst) {
      std::copy_n(row, columns * channels, samples.begin() + static_cast<std::ptrdiff_t>(first * channels));
      continue;
    }
    for (std::size_t c = 0; c < channels; ++c) {
      double* target = samples.data() + c * plane + first;
      for (std::size_t x = 0; x < columns; ++x) target[x] = static_cast<double>(row[x * channels + c]);
    }
  }
  return samples;
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
    for (std::size_t c = 0; c < 3; ++c) {
      const std::size_t count = (samples.size() + 2 - c) / 3;
      ranges.channels.push_back(Measure({samples.data() + c, count, 3}, divisor));
    }
  } else {
    const std::size_t plane = samples.size() / static_cast<std::size_t>(axes.Channels());
    for (int c = 0; c < axes.Channels(); ++c) {
      const auto part = samples.subspan(static_cast<std::size_t>(c) * plane, plane);
      ranges.channels.push_back(Measure({part.data(), part.size(), 1}, divisor));
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
  return image.depth() == CV_32F ? Flatten<float>(image, layout) : Flatten<double>(image, layout);
}

}  // namespace ulmora::cli
