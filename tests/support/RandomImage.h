#pragma once
// Random images, plain ones and ones full of awkward floats.

#include "tests/support/Random.h"

#include <opencv2/core.hpp>

#include <bit>
#include <cstdint>
#include <limits>

namespace ulmora::test {

/// Uniform samples of a float32 or float64 image; the default range has negatives and values above 1.
inline cv::Mat RandomImage(Random& random, int rows, int cols, int type, double low = -0.25, double high = 1.25) {
  cv::Mat image(rows, cols, type);
  const int samples = cols * image.channels();
  for (int y = 0; y < rows; ++y) {
    for (int i = 0; i < samples; ++i) {
      const double value = random.Double(low, high);
      if (image.depth() == CV_32F) {
        image.ptr<float>(y)[i] = static_cast<float>(value);
      } else {
        image.ptr<double>(y)[i] = value;
      }
    }
  }
  return image;
}

/// A float whose rounding, sign or payload shows every liberty that arithmetic takes.
inline float AwkwardFloat(Random& random) {
  using Limits = std::numeric_limits<float>;
  switch (random.Int(0, 11)) {
    case 0:
      return random.Int(0, 1) != 0 ? 0.0f : -0.0f;
    case 1:
      return random.Int(0, 1) != 0 ? Limits::denorm_min() : -Limits::denorm_min();
    case 2:
      return random.Float(-1.0f, 1.0f) * Limits::min();
    case 3:
      return std::bit_cast<float>(0x7fc00000u | static_cast<std::uint32_t>(random.Int(0, 0x3fffff)));
    case 4:
      return std::bit_cast<float>(0x7f800001u | static_cast<std::uint32_t>(random.Int(0, 0x3fffff)));
    case 5:
      return random.Int(0, 1) != 0 ? Limits::infinity() : -Limits::infinity();
    case 6:
      return random.Int(0, 1) != 0 ? Limits::max() : -Limits::max();
    default:
      return random.Float(-2.0f, 2.0f);
  }
}

/// A CV_32FC3 image of awkward floats: zeros of both signs, subnormals, quiet and signalling NaNs, infinities.
inline cv::Mat AwkwardImage(Random& random, int rows, int cols) {
  cv::Mat image(rows, cols, CV_32FC3);
  for (int y = 0; y < rows; ++y) {
    float* row = image.ptr<float>(y);
    for (int i = 0; i < 3 * cols; ++i) row[i] = AwkwardFloat(random);
  }
  return image;
}

}  // namespace ulmora::test
