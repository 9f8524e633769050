#include "cli/DLModelCoreML.h"

#include <iostream>

std::shared_ptr<ulmora::core::CoreMLBackend> DLModelCoreML::LoadModel(const std::string& path) {
  if (!quiet_ && !machine_progress_) {
    std::cout << "Restoring neural network checkpoint... " << std::endl;
    std::cout << "Loading CoreML model package: " << path << std::endl;
  }
  return std::make_shared<ulmora::core::CoreMLBackend>(path);
}

cv::Mat DLModelCoreML::RunTile(ulmora::core::CoreMLBackend& backend, const cv::Mat& tile) {
  return backend.RunTile(tile);
}
