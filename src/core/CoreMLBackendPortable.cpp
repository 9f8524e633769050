// CoreMLBackend over the portable engine, for platforms without Core ML.
#include "core/BackendContract.h"
#include "core/CoreMLBackend.h"
#include "engine/Model.h"

#include <array>
#include <filesystem>
#include <new>
#include <span>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace ulmora::core {

struct CoreMLBackend::Impl {
  engine::Model model;
};

namespace {

using contract::Fail;
using contract::kChannels;

std::filesystem::path ModelPath(const std::string& path) {
  std::filesystem::path modelPath(std::u8string(path.begin(), path.end()));
  std::error_code error;
  if (!std::filesystem::exists(modelPath, error)) {
    Fail(contract::kNotFound, path);
  }
  return modelPath;
}

// A .mlmodelc holds a model that was compiled already, so that all that can go wrong with it is loading. Exactly this
// ending counts; a slash behind it does not hide it.
bool IsCompiledModel(const std::filesystem::path& path) {
  return (path.has_filename() ? path : path.parent_path()).extension() == ".mlmodelc";
}

engine::Model OpenModel(const std::filesystem::path& path) {
  try {
    return engine::Model(path);
  } catch (const engine::Error& error) {
    if (IsCompiledModel(path) || error.stage() == engine::Stage::Load) Fail(contract::kNotLoaded, error.what());
    Fail(contract::kNotCompiled, error.what());
  }
}

engine::Shape ShapeOf(const cv::Mat& tile) {
  return {1, kChannels, tile.rows, tile.cols};
}

// The planes of a dense [1, 3, rows, cols] tensor as one-channel images on the tensor's own memory.
std::array<cv::Mat, kChannels> Planes(float* tensor, int rows, int cols) {
  const std::size_t planeSize = static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols);
  std::array<cv::Mat, kChannels> planes;
  for (std::size_t c = 0; c < kChannels; ++c) planes[c] = cv::Mat(rows, cols, CV_32FC1, tensor + c * planeSize);
  return planes;
}

// The engine runs tensors alone and would refuse an image output as it does everything that it cannot run.
void RequireTensorOutput(const engine::Model& model) {
  using engine::FeatureKind;
  if (model.inputs().front().kind == FeatureKind::Tensor && model.outputs().front().kind != FeatureKind::Tensor) {
    throw std::runtime_error(contract::kNoOutputArray);
  }
}

std::span<float> BindInput(engine::Model& model, const engine::Shape& shape) {
  try {
    return model.BindInput(shape);
  } catch (const std::bad_alloc& error) {
    Fail(contract::kNoInputTensor, error.what());
  } catch (const std::exception& error) {
    Fail(contract::kNotPredicted, error.what());
  }
}

engine::OutputView Predict(engine::Model& model) {
  try {
    return model.Run();
  } catch (const std::exception& error) {
    Fail(contract::kNotPredicted, error.what());
  }
}

cv::Mat ImageOf(const engine::OutputView& output, const engine::Shape& expected) {
  if (output.element != engine::ElementType::Float32) throw std::runtime_error(contract::kOutputNotFloat32);
  if (output.shape != expected) throw std::runtime_error(contract::kOutputShape);
  const int rows = static_cast<int>(expected[2]), cols = static_cast<int>(expected[3]);
  // cv::Mat has no headers on constant memory; merging only reads.
  const auto planes = Planes(const_cast<float*>(output.data.data()), rows, cols);
  cv::Mat image(rows, cols, CV_32FC3);
  cv::merge(planes.data(), planes.size(), image);
  return image;
}

}  // namespace

CoreMLBackend::CoreMLBackend(const std::string& modelPath) try {
  engine::Model model = OpenModel(ModelPath(modelPath));
  if (model.inputs().size() != 1 || model.outputs().size() != 1) {
    throw std::runtime_error(contract::kNotOneInputAndOutput);
  }
  impl_ = std::make_unique<Impl>(Impl{std::move(model)});
} catch (const std::exception& error) {
  throw std::runtime_error(contract::OpeningFailure(error, modelPath));
}

CoreMLBackend::~CoreMLBackend() = default;

cv::Mat CoreMLBackend::RunTile(const cv::Mat& tile) {
  contract::RequireTile(tile);
  RequireTensorOutput(impl_->model);
  const engine::Shape shape = ShapeOf(tile);
  const std::span<float> input = BindInput(impl_->model, shape);
  cv::split(tile, Planes(input.data(), tile.rows, tile.cols).data());
  return ImageOf(Predict(impl_->model), shape);
}

}  // namespace ulmora::core
