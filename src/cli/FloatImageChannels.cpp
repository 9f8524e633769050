#include "cli/FloatImageChannels.h"

#include <opencv2/imgproc.hpp>

#include <vector>

namespace ulmora::cli {

cv::Mat GrayToRgb(const cv::Mat& image) {
  // cv::cvtColor does not take float64, hence a road of its own for that depth here and below.
  CV_Assert(image.channels() == 1);
  cv::Mat result;
  if (image.depth() == CV_64F) {
    cv::merge(std::vector<cv::Mat>(3, image), result);
  } else {
    cv::cvtColor(image, result, cv::COLOR_GRAY2RGB);
  }
  return result;
}

cv::Mat RgbToGray(const cv::Mat& image) {
  CV_Assert(image.channels() == 3);
  cv::Mat result;
  if (image.depth() == CV_64F) {
    const cv::Matx13d weights(0.299, 0.587, 0.114);
    cv::transform(image, result, weights);
  } else {
    cv::cvtColor(image, result, cv::COLOR_RGB2GRAY);
  }
  return result;
}

}  // namespace ulmora::cli
