// Runs the library tile loop over a raw float32 RGB image, for the comparison with another implementation:
// tile_loop_driver <width> <height> <window> <stride> <input> <output>. The tile function mirrors a tile left to right
// and takes every sample to 0.75 * sample + 0.125, in float32.
#include "core/TiledInference.h"

#include <opencv2/core.hpp>

#include <fstream>
#include <iostream>
#include <string>

namespace {

cv::Mat MirrorAndScale(const cv::Mat& tile) {
  cv::Mat out(tile.size(), tile.type());
  for (int y = 0; y < tile.rows; ++y) {
    for (int x = 0; x < tile.cols; ++x) {
      const cv::Vec3f from = tile.at<cv::Vec3f>(y, tile.cols - 1 - x);
      cv::Vec3f& to = out.at<cv::Vec3f>(y, x);
      for (int c = 0; c < 3; ++c) to[c] = 0.75f * from[c] + 0.125f;
    }
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 7) throw std::invalid_argument("needs width, height, window, stride, input and output");
  cv::Mat image(std::stoi(argv[2]), std::stoi(argv[1]), CV_32FC3);
  const auto bytes = static_cast<std::streamsize>(image.total() * image.elemSize());
  std::ifstream input(argv[5], std::ios::binary);
  if (!input.read(image.ptr<char>(), bytes)) throw std::runtime_error("input is too short");
  const cv::Mat result =
      ulmora::core::RunTiledInference(image, std::stoi(argv[3]), std::stoi(argv[4]), MirrorAndScale, {});
  std::ofstream output(argv[6], std::ios::binary);
  if (!output.write(result.ptr<char>(), bytes)) throw std::runtime_error("output cannot be written");
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
