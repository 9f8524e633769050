#pragma once
// The denoiser: fixes the order of a run's steps and owns the output image.

#include "cli/DLModelCoreML.h"

#include <opencv2/core.hpp>

#include <string>

class LumvaneModel : public DLModelCoreML {
 public:
  /// Checks the stride, reads the input and fixes the tile layout; touches nothing of the model package, so that a bad
  /// stride, input or size is reported before a bad package. std::invalid_argument for each of the former.
  LumvaneModel(std::string input, std::string output, const int& modelVersion, const int& stride, const int& windowSize,
               const std::string& weights, bool quiet, bool machineProgress, bool linear);

  /// The whole of inference and output, once.
  void Process();

  /// Opens the model package and runs the tiles. The model is unloaded again on return.
  void TransformImage();

  /// Finishes, converts and writes the result.
  void WriteOutput();

  /// A deep copy of the image as it stands: normalized, R, G, B.
  [[nodiscard]] cv::Mat GetOutputImage();

 private:
  cv::Mat output_image_;
};
