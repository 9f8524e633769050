#pragma once
// What the two sources of CoreMLBackend ask of tiles and say in failures alike.

#include "common/ModelContext.h"

#include <opencv2/core.hpp>

#include <exception>
#include <stdexcept>
#include <string>

namespace ulmora::core::contract {

inline constexpr int kChannels = 3;

inline constexpr const char* kNotFound = "CoreML model package not found";
inline constexpr const char* kNotCompiled = "Unable to compile CoreML model";
inline constexpr const char* kNotLoaded = "Unable to load CoreML model";
inline constexpr const char* kNotOneInputAndOutput = "CoreML model must expose exactly one input and one output.";
inline constexpr const char* kNoInputTensor = "Unable to allocate CoreML input tensor";
inline constexpr const char* kNotPredicted = "CoreML prediction failed";
inline constexpr const char* kNoOutputArray = "CoreML prediction did not return a multi-array output.";
inline constexpr const char* kOutputNotFloat32 = "CoreML output tensor must be Float32.";
inline constexpr const char* kOutputShape = "CoreML returned an unexpected output shape.";

/// Throws std::runtime_error with both texts and a colon between them.
[[noreturn]] inline void Fail(const char* what, const std::string& detail) {
  throw std::runtime_error(std::string(what) + ": " + detail);
}

/// Throws std::runtime_error unless the tile is non-empty, CV_32FC3 and continuous.
inline void RequireTile(const cv::Mat& tile) {
  if (tile.empty()) throw std::runtime_error("CoreML input image is empty.");
  if (tile.type() != CV_32FC3) throw std::runtime_error("CoreML input image must be CV_32FC3.");
  if (!tile.isContinuous()) throw std::runtime_error("CoreML input image must be continuous.");
}

/// The text of a failed opening, and the model context on a line of its own.
[[nodiscard]] inline std::string OpeningFailure(const std::exception& failure, const std::string& modelPath) {
  return std::string(failure.what()) + "\n" +
         diagnostics::ModelContext("CoreML", ".mlpackage or .mlmodelc directory bundle", modelPath, "backend caller",
                                   {});
}

}  // namespace ulmora::core::contract
