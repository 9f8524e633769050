#include "cli/ImageStatistics.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>

namespace ulmora::cli {
namespace {

/// Running extrema in as many lanes as a multiple of every usual channel count and of every vector register, so that
/// interleaved samples need no sorting: lane i always holds channel i modulo the channel count.
template <typename T>
class LaneExtrema {
 public:
  static constexpr int kLanes = 192;

  LaneExtrema() {
    least_.fill(std::numeric_limits<T>::max());
    greatest_.fill(std::numeric_limits<T>::min());
  }

  void AddRow(const T* samples, int count) {
    int i = 0;
    for (; i + kLanes <= count; i += kLanes) {
      for (int lane = 0; lane < kLanes; ++lane) {
        const auto at = static_cast<std::size_t>(lane);
        least_[at] = std::min(least_[at], samples[i + lane]);
        greatest_[at] = std::max(greatest_[at], samples[i + lane]);
      }
    }
    for (int lane = 0; i + lane < count; ++lane) {
      const auto at = static_cast<std::size_t>(lane);
      least_[at] = std::min(least_[at], samples[i + lane]);
      greatest_[at] = std::max(greatest_[at], samples[i + lane]);
    }
  }

  [[nodiscard]] InputRange Channel(int channel, int channels, std::uint64_t pixels) const {
    T least = std::numeric_limits<T>::max();
    T greatest = std::numeric_limits<T>::min();
    for (int lane = channel; lane < kLanes; lane += channels) {
      least = std::min(least, least_[static_cast<std::size_t>(lane)]);
      greatest = std::max(greatest, greatest_[static_cast<std::size_t>(lane)]);
    }
    InputRange range;
    range.samples = pixels;
    range.finite = pixels;
    range.minimum = least;
    range.maximum = greatest;
    return range;
  }

 private:
  std::array<T, kLanes> least_{};
  std::array<T, kLanes> greatest_{};
};

/// For depths whose samples cannot be outside 0 to 1 after division: only the extrema are to be found.
template <typename T>
ImageRanges MeasureUnsigned(const cv::Mat& image) {
  LaneExtrema<T> extrema;
  for (int y = 0; y < image.rows; ++y) extrema.AddRow(image.ptr<T>(y), image.cols * image.channels());
  ImageRanges ranges;
  for (int c = 0; c < image.channels(); ++c) {
    ranges.channels.push_back(extrema.Channel(c, image.channels(), image.total()));
    ranges.overall.Merge(ranges.channels.back());
  }
  return ranges;
}

/// For every other depth and channel count; one row at a time in double precision, to which all depths convert exactly.
ImageRanges MeasureAny(const cv::Mat& image, double scale) {
  const int channels = image.channels();
  ImageRanges ranges;
  ranges.channels.resize(static_cast<std::size_t>(channels));
  cv::Mat row;
  for (int y = 0; y < image.rows; ++y) {
    image.row(y).convertTo(row, CV_64F);
    const double* samples = row.ptr<double>();
    for (int i = 0; i < image.cols * channels; ++i) {
      ranges.overall.Add(samples[i], scale);
      ranges.channels[static_cast<std::size_t>(i % channels)].Add(samples[i], scale);
    }
  }
  return ranges;
}

}  // namespace

ImageRanges MeasureRanges(const cv::Mat& image, double scale) {
  const bool lanesFit = !image.empty() && LaneExtrema<std::uint8_t>::kLanes % image.channels() == 0;
  if (image.depth() == CV_8U && lanesFit && scale >= 255.0) return MeasureUnsigned<std::uint8_t>(image);
  if (image.depth() == CV_16U && lanesFit && scale >= 65535.0) return MeasureUnsigned<std::uint16_t>(image);
  return MeasureAny(image, scale);
}

}  // namespace ulmora::cli
