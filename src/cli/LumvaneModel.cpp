#include "cli/LumvaneModel.h"

#include <iostream>
#include <stdexcept>
#include <utility>

LumvaneModel::LumvaneModel(std::string input, std::string output, const int& modelVersion, const int& stride,
                           const int& windowSize, const std::string& weights, bool quiet, bool machineProgress,
                           bool linear) {
  input_path_ = std::move(input);
  output_path_ = std::move(output);
  model_version_ = modelVersion;
  stride_ = stride;
  window_size_ = windowSize;
  weights_path_ = weights;
  quiet_ = quiet;
  machine_progress_ = machineProgress;
  if (stride < 1 || windowSize < stride) {
    throw std::invalid_argument("Stride must be positive and no larger than the window size (" +
                                std::to_string(windowSize) + ").");
  }
  if ((windowSize - stride) % 2 != 0) throw std::invalid_argument("Stride should be even!");
  image_ = ReadImageIn(input_path_, false, linear);
  if (modelVersion == 1 && grayscale_) {
    throw std::invalid_argument(
        "Model version 1 cannot be used with grayscale input. Use model version 2 for grayscale.");
  }
  SetDimensions();
}

void LumvaneModel::Process() {
  TransformImage();
  output_image_ = RestoreLinearMtfOutput(output_image_);
  WriteOutput();
}

void LumvaneModel::TransformImage() {
  const std::shared_ptr<ulmora::core::CoreMLBackend> backend = LoadModel(weights_path_);
  const std::function<cv::Mat(const cv::Mat&)> infer = [this, &backend](const cv::Mat& tile) {
    return RunTile(*backend, tile);
  };
  output_image_ = RunTiledInference(infer);
}

void LumvaneModel::WriteOutput() {
  cv::Mat finalImage = FinalizeLinearImage(GetOutputImage());
  // Handed over, not shared: each conversion can then free the buffer before it.
  finalImage = PrepareOutputImage(output_path_, std::move(finalImage), false);
  if (!quiet_ && !machine_progress_) std::cout << "Writing denoised image to: " << output_path_ << std::endl;
  WriteImage(output_path_, finalImage, ulmora::cli::FitsOutputRole::main);
}

cv::Mat LumvaneModel::GetOutputImage() {
  return output_image_.clone();
}
