#pragma once
// Doubles an image's grid and halves it again such that every source sample stays where it is.

#include <opencv2/core.hpp>

namespace ulmora {

/// The image on a grid of twice the rows and columns, same type: source pixel (x, y) stands unchanged at (2x, 2y), and
/// the samples between are interpolated by cubic convolution with the free parameter -0.75, which may overshoot.
/// Edges are replicated. `source` is a non-empty float32 or float64 image of any channel count; anything else, and a
/// result too large for int, raises a cv::Exception of a failed assertion.
[[nodiscard]] cv::Mat UpsampleGridCubic2x(const cv::Mat& source);

/// The samples at even rows and columns, unfiltered: exactly undoes UpsampleGridCubic2x. `target` is half the size of
/// `source`, whose rows and columns are even; anything else raises a cv::Exception of a failed assertion.
[[nodiscard]] cv::Mat DownsampleGrid2x(const cv::Mat& source, cv::Size target);

namespace grid_detail {

/// The sample half way between b and c of four neighbours: taps -3/32, 19/32, 19/32, -3/32 in double precision, and b
/// itself where all four are equal, so that flat regions stay exactly flat.
template <typename T>
[[nodiscard]] T HalfStep(T a, T b, T c, T d);

/// UpsampleGridCubic2x for an image whose samples are of type T, without its assertions.
template <typename T>
[[nodiscard]] cv::Mat Enlarge(const cv::Mat& source);

/// DownsampleGrid2x for an image whose samples are of type T, without its assertions; odd dimensions are truncated.
template <typename T>
[[nodiscard]] cv::Mat Reduce(const cv::Mat& source);

extern template float HalfStep<float>(float, float, float, float);
extern template double HalfStep<double>(double, double, double, double);
extern template cv::Mat Enlarge<float>(const cv::Mat&);
extern template cv::Mat Enlarge<double>(const cv::Mat&);
extern template cv::Mat Reduce<float>(const cv::Mat&);
extern template cv::Mat Reduce<double>(const cv::Mat&);

}  // namespace grid_detail
}  // namespace ulmora
