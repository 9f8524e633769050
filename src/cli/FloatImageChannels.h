#pragma once
// Conversion between one-plane and three-plane images for the model, which always works on three channels. Unlike
// OpenCV's colour conversion alone, both take float64 images.

#include <opencv2/core.hpp>

namespace ulmora::cli {

/// The luma of an R, G, B image with the weights 0.299, 0.587 and 0.114, one plane of the same depth and size. Any
/// value range. A cv::Exception of a failed assertion unless the image has three channels.
[[nodiscard]] cv::Mat RgbToGray(const cv::Mat& image);

/// Three identical planes of the given one-plane image, same depth and size. Any value range. A cv::Exception of a
/// failed assertion unless the image has one channel.
[[nodiscard]] cv::Mat GrayToRgb(const cv::Mat& image);

}  // namespace ulmora::cli
