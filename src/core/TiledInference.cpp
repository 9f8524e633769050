#include "core/TiledInference.h"

#include "common/TileBlending.h"
#include "common/TileGeometry.h"
#include "common/TileLoop.h"

#include <cfloat>
#include <cstdint>
#include <limits>

namespace ulmora::core {
namespace {

void RequireTileable(const cv::Mat& image, int window, int stride) {
  if (image.empty() || image.type() != CV_32FC3) {
    throw std::invalid_argument("Tiled inference requires float32 RGB pixels.");
  }
  if (window <= 0 || stride <= 0 || stride > window || (window - stride) % 2 != 0) {
    throw std::invalid_argument("Invalid inference window or stride.");
  }
  if (image.cols < window || image.rows < window) {
    throw std::invalid_argument("Image size is too small for the window!");
  }
  // Padding adds less than two windows, and each direction less than two tiles: with these, no int can overflow.
  constexpr std::int64_t kMax = std::numeric_limits<int>::max();
  const std::int64_t cols = image.cols, rows = image.rows, longest = kMax - 2 * std::int64_t{window};
  if (cols > longest || rows > longest || (cols / stride + 2) * (rows / stride + 2) > kMax) {
    throw std::invalid_argument("Image dimensions exceed supported tiling limits.");
  }
}

void RequireTile(const cv::Mat& out, int window) {
  if (out.type() != CV_32FC3 || out.rows != window || out.cols != window) {
    throw std::runtime_error("Inference returned an invalid tile shape or type.");
  }
  if (!cv::checkRange(out, true, nullptr, -DBL_MAX, DBL_MAX)) {
    throw std::runtime_error("Inference returned non-finite samples.");
  }
}

cv::Mat PadImage(const cv::Mat& image, const TileGeometry& geometry) {
  return PadReflected(image, geometry.halfOverlap, geometry.halfOverlap, geometry.padRight, geometry.padBottom);
}

}  // namespace

Cancelled::Cancelled() : std::runtime_error("Processing cancelled.") {}

cv::Mat RunTiledInference(const cv::Mat& image, int window, int stride,
                          const std::function<cv::Mat(const cv::Mat&)>& infer,
                          const std::function<bool(int, int)>& progress) {
  RequireTileable(image, window, stride);
  const TileGeometry geometry = TileGeometry::ForImage(image.cols, image.rows, window, stride);
  const auto report = [&](int done) {
    if (progress && !progress(done, geometry.tileCount)) throw Cancelled();
  };
  report(0);
  TileLoopHooks hooks;
  hooks.checkTile = [window](const cv::Mat& out) { RequireTile(out, window); };
  hooks.afterTile = report;
  const cv::Mat blended = BlendTiles(PadImage(image, geometry), geometry, infer, hooks);
  return blended(cv::Rect(geometry.halfOverlap, geometry.halfOverlap, image.cols, image.rows)).clone();
}

}  // namespace ulmora::core
