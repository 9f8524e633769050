#pragma once
// The step between the pipeline's R, G, B order and the B, G, R order of OpenCV's decoder and encoder.

#include <opencv2/core.hpp>

namespace ulmora::cli {

/// Exchanges the first and third plane of a three-channel image, in its own storage.
void SwapRedAndBlue(cv::Mat& image);

}  // namespace ulmora::cli
