// The tile stage of the image pipeline: from the inference image to the blended result.
#include "cli/DLModelBase.h"
#include "cli/Progress.h"
#include "common/TileBlending.h"
#include "common/TileLoop.h"

#include <iostream>

cv::Mat DLModelBase::RunTiledInference(const std::function<cv::Mat(const cv::Mat&)>& infer) {
  namespace cli = ulmora::cli;
  const int total = tile_geometry_.tileCount;
  const bool working = !machine_progress_ && !quiet_;
  ulmora::TileLoopHooks hooks;
  hooks.beforeTile = [&](int tilesBegun) {
    if (machine_progress_) cli::WriteProgress(std::cerr, tilesBegun, total);
    if (working) cli::WriteWorking(std::cout, tilesBegun, total);
  };
  const cv::Mat padded = PadImage(InferenceImage());
  if (machine_progress_) cli::WriteProgressStart(std::cerr, total);
  const cv::Mat blended = ulmora::BlendTiles(padded, tile_geometry_, infer, hooks);
  if (machine_progress_) cli::WriteProgressFinish(std::cerr, total);
  if (working) cli::WriteWorkingDone(std::cout);
  return CropImage(blended);
}

cv::Mat DLModelBase::PadImage(cv::Mat image) {
  return ulmora::PadReflected(image, margin_, margin_, padded_width_ - width_ - margin_,
                              padded_height_ - height_ - margin_);
}

cv::Mat DLModelBase::CropImage(cv::Mat image) {
  const int right = padded_width_ - width_ - margin_, bottom = padded_height_ - height_ - margin_;
  return image(cv::Rect(margin_, margin_, image.cols - margin_ - right, image.rows - margin_ - bottom));
}

cv::Mat DLModelBase::MaskImage(cv::Mat tile, int tileX, int tileY) {
  ulmora::TileBlender(tile_geometry_).ApplyWeights(tile, tileX, tileY);
  return tile.clone();
}

float DLModelBase::GetWeight(int tileX, int tileY, int x, int y) {
  return static_cast<float>(tile_geometry_.Weight(tileX, tileY, x, y));
}
