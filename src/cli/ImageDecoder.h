#pragma once
// The one call of the image library's decoder: silent, and right also for TIFF layouts that the library misreads.

#include <opencv2/core.hpp>

#include <string>

namespace ulmora::cli {

/// Decodes the first image of a file with depth and channel count as stored, three channels in B, G, R order and four
/// in B, G, R, A order. Empty if the file cannot be read, or if it could be read only with loss. std::invalid_argument
/// for an image that is too large for the decoder or for the memory.
[[nodiscard]] cv::Mat DecodeImage(const std::string& path);

}  // namespace ulmora::cli
