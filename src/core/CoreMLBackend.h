#pragma once
// The inference engine behind the tile function: opens one model package and turns tiles into denoised tiles.

#include <opencv2/core.hpp>

#include <memory>
#include <string>

namespace ulmora::core {

/// One opened network with one input and one output, both tensors [1, 3, height, width] of float32 with the planes in
/// the tile's channel order (red, green, blue). Samples pass unscaled in both directions. One source file implements it
/// with Core ML, another over the portable engine; both give the same texts. For use by one thread.
class CoreMLBackend {
 public:
  /// Opens a .mlpackage or .mlmodelc bundle. Throws std::runtime_error if the path does not exist, if the model cannot
  /// be compiled or loaded, or if it has other than one input and one output; the text has the model context on a
  /// second line. Declared sizes and types are not looked at: the first tile shows whether they fit.
  explicit CoreMLBackend(const std::string& modelPath);
  ~CoreMLBackend();

  /// Runs one tile: non-empty, continuous, CV_32FC3, of any size that the model takes. Returns a new CV_32FC3 image of
  /// the same size, samples as the model gave them. Throws std::runtime_error for other tiles, for a failing run, and
  /// for an output that is not a float32 tensor of exactly the input's shape.
  [[nodiscard]] cv::Mat RunTile(const cv::Mat& tile);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ulmora::core
