#include "common/GridAlignedResample.h"

#include <algorithm>
#include <limits>

namespace ulmora {
namespace grid_detail {

template <typename T>
T HalfStep(T a, T b, T c, T d) {
  if (a == b && b == c && c == d) return b;
  // A flat neighbourhood never gets here, nor does rounding depend on the sample type: the sum is taken in double
  // precision and in this order.
  const double wideA = a, wideB = b, wideC = c, wideD = d;
  return static_cast<T>(0.59375 * wideB - 0.09375 * wideA + 0.59375 * wideC - 0.09375 * wideD);
}

template <typename T>
cv::Mat Enlarge(const cv::Mat& source) {
  const int rows = source.rows, cols = source.cols, channels = source.channels();
  cv::Mat enlarged(2 * rows, 2 * cols, source.type());
  // Even rows from the source, left to right.
  for (int y = 0; y < rows; ++y) {
    const T* from = source.ptr<T>(y);
    T* to = enlarged.ptr<T>(2 * y);
    for (int x = 0; x < cols; ++x) {
      const T* before = from + std::max(x - 1, 0) * channels;
      const T* here = from + x * channels;
      const T* after = from + std::min(x + 1, cols - 1) * channels;
      const T* beyond = from + std::min(x + 2, cols - 1) * channels;
      std::copy(here, here + channels, to + 2 * x * channels);
      T* between = to + (2 * x + 1) * channels;
      for (int c = 0; c < channels; ++c) between[c] = HalfStep(before[c], here[c], after[c], beyond[c]);
    }
  }
  // Odd rows from the finished even ones, so that their interpolated columns are interpolated once more.
  for (int y = 0; y < rows; ++y) {
    const T* before = enlarged.ptr<T>(2 * std::max(y - 1, 0));
    const T* here = enlarged.ptr<T>(2 * y);
    const T* after = enlarged.ptr<T>(2 * std::min(y + 1, rows - 1));
    const T* beyond = enlarged.ptr<T>(2 * std::min(y + 2, rows - 1));
    T* between = enlarged.ptr<T>(2 * y + 1);
    for (int i = 0; i < 2 * cols * channels; ++i) between[i] = HalfStep(before[i], here[i], after[i], beyond[i]);
  }
  return enlarged;
}

template <typename T>
cv::Mat Reduce(const cv::Mat& source) {
  const int channels = source.channels();
  // Truncating, so that an odd last row or column has no part in the result.
  cv::Mat reduced(source.rows / 2, source.cols / 2, source.type());
  for (int y = 0; y < reduced.rows; ++y) {
    const T* from = source.ptr<T>(2 * y);
    T* to = reduced.ptr<T>(y);
    for (int x = 0; x < reduced.cols; ++x) {
      std::copy_n(from + 2 * x * channels, channels, to + x * channels);
    }
  }
  return reduced;
}

}  // namespace grid_detail

// The texts of the assertions below carry expression, file and line, and are part of what the functions promise: the
// lines stay where they are, each assertion on one line.
// clang-format off

cv::Mat UpsampleGridCubic2x(const cv::Mat& source) {
  CV_Assert(!source.empty() && source.dims == 2 && (source.depth() == CV_32F || source.depth() == CV_64F));
  // Rows are counted alone, columns with their channels: a row of the result is indexed by int.
  CV_Assert(source.rows <= std::numeric_limits<int>::max() / 2 && source.cols <= std::numeric_limits<int>::max() / (2 * source.channels()));
  return source.depth() == CV_32F ? grid_detail::Enlarge<float>(source) : grid_detail::Enlarge<double>(source);
}


cv::Mat DownsampleGrid2x(const cv::Mat& source, cv::Size target) {
  CV_Assert(!source.empty() && source.dims == 2 && (source.depth() == CV_32F || source.depth() == CV_64F));
  CV_Assert(source.cols <= std::numeric_limits<int>::max() / source.channels());
  CV_Assert(source.cols % 2 == 0 && source.rows % 2 == 0 && target == cv::Size(source.cols / 2, source.rows / 2));
  return source.depth() == CV_32F ? grid_detail::Reduce<float>(source) : grid_detail::Reduce<double>(source);
}

// clang-format on

namespace grid_detail {
template float HalfStep<float>(float, float, float, float);
template double HalfStep<double>(double, double, double, double);
template cv::Mat Enlarge<float>(const cv::Mat&);
template cv::Mat Enlarge<double>(const cv::Mat&);
template cv::Mat Reduce<float>(const cv::Mat&);
template cv::Mat Reduce<double>(const cv::Mat&);
}  // namespace grid_detail
}  // namespace ulmora
