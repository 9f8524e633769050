#include "cli/ChannelOrder.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>

namespace ulmora::cli {

void SwapRedAndBlue(cv::Mat& image) {
  // In place, cv::cvtColor works from a copy of its source; by bands that copy stays small whatever the image's size.
  constexpr int kBandRows = 64;
  for (int y = 0; y < image.rows; y += kBandRows) {
    cv::Mat band = image.rowRange(y, std::min(y + kBandRows, image.rows));
    cv::cvtColor(band, band, cv::COLOR_BGR2RGB);
  }
}

}  // namespace ulmora::cli
