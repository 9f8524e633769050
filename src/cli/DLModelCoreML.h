#pragma once
// The layer of the model family that knows the inference backend: this is where a run is bound to one.

#include "cli/DLModelBase.h"
#include "core/CoreMLBackend.h"

#include <memory>
#include <string>

class DLModelCoreML : public DLModelBase {
 public:
  /// Opens a model package, after saying so on standard output unless the run is quiet or in machine mode.
  /// std::runtime_error if the package cannot be opened.
  [[nodiscard]] std::shared_ptr<ulmora::core::CoreMLBackend> LoadModel(const std::string& path);

  /// Runs one continuous CV_32FC3 tile; the result is a new tile of the same size. std::runtime_error on failure.
  [[nodiscard]] cv::Mat RunTile(ulmora::core::CoreMLBackend& backend, const cv::Mat& tile);
};
