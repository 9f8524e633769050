#pragma once
// The one call of the image library's encoder: silent, and checked for files that came out cut.

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace ulmora::cli {

/// Writes an 8-bit or 16-bit image of one plane or of three in B, G, R order in the format that the path's ending
/// names, with cv::imwrite's parameters. False if it could not be written whole. For an ending without an encoder the
/// library's own cv::Exception, less its final line feed.
[[nodiscard]] bool EncodeImage(const std::string& path, const cv::Mat& image, const std::vector<int>& parameters);

/// Whether a file that was just written with this image is as long as its format says. On a full disk some encoders
/// report success. Cheap: looks at a few bytes of the file. True for formats that it does not know and for what is no
/// regular file.
[[nodiscard]] bool IsWholeImageFile(const std::string& path, const cv::Mat& image);

}  // namespace ulmora::cli
