#include "common/IsConstantTile.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ulmora {
namespace {

bool LayoutFits(std::size_t width, std::size_t height, std::size_t channels, std::size_t rowStride) {
  constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max();
  if (width == 0 || height == 0 || channels == 0 || width > kMax / channels) return false;
  const std::size_t rowSamples = width * channels;
  return rowStride >= rowSamples && height - 1 <= (kMax - rowSamples) / rowStride;
}

}  // namespace

bool IsConstantTile(const cv::Mat& tile) {
  if (tile.empty() || tile.dims != 2 || tile.depth() != CV_32F) return false;
  return IsConstantTile(tile.ptr<float>(0), static_cast<std::size_t>(tile.cols), static_cast<std::size_t>(tile.rows),
                        static_cast<std::size_t>(tile.channels()), tile.step1(0));
}

bool IsConstantTile(const float* samples, std::size_t width, std::size_t height, std::size_t channels,
                    std::size_t rowStride) {
  if (samples == nullptr || !LayoutFits(width, height, channels, rowStride)) return false;
  const float* first = samples;
  if (!std::all_of(first, first + channels, [](float sample) { return std::isfinite(sample); })) return false;
  const std::size_t rowSamples = width * channels;
  for (std::size_t y = 0; y < height; ++y) {
    const float* row = samples + y * rowStride;
    if (!std::equal(first, first + channels, row)) return false;
    // The first pixel is finite, so equality passes on from each pixel to its right neighbour.
    if (!std::equal(row + channels, row + rowSamples, row)) return false;
  }
  return true;
}

}  // namespace ulmora
