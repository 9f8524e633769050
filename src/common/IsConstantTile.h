#pragma once
// Recognizes tiles of one colour, which need no inference.

#include <opencv2/core.hpp>

#include <cstddef>

namespace ulmora {

/// True if every pixel of a two-dimensional CV_32F matrix equals the first one exactly, channel by channel, and the
/// first one is finite. -0.0 equals +0.0. False for an empty matrix, other dimensions and other depths.
[[nodiscard]] bool IsConstantTile(const cv::Mat& tile);

/// The same for `height` rows of `width` interleaved pixels; `rowStride` is the distance of two rows in floats. False
/// for a null pointer, a zero size, and a layout that overlaps itself or exceeds the address space.
[[nodiscard]] bool IsConstantTile(const float* samples, std::size_t width, std::size_t height, std::size_t channels,
                                  std::size_t rowStride);

}  // namespace ulmora
