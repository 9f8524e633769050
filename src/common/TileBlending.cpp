#include "common/TileBlending.h"

#include <opencv2/core/hal/hal.hpp>

#include <algorithm>
#include <optional>

namespace ulmora {
namespace {

constexpr int kChannels = 3;

// Mirrors the outermost columns of one row, which holds the image's own columns already.
void ReflectColumns(cv::Vec3f* row, int columns, int left, int right) {
  for (int i = 0; i < left; ++i) row[i] = row[2 * left - i];
  for (int i = 0; i < right; ++i) row[columns - 1 - i] = row[columns - 1 - 2 * right + i];
}

}  // namespace

cv::Mat PadReflected(const cv::Mat& image, int left, int top, int right, int bottom) {
  CV_Assert(image.type() == CV_32FC3 && std::max(left, right) < image.cols && std::max(top, bottom) < image.rows);
  cv::Mat padded(image.rows + top + bottom, image.cols + left + right, CV_32FC3);
  const auto fillRow = [&](int paddedRow, int imageRow) {
    cv::Vec3f* row = padded.ptr<cv::Vec3f>(paddedRow);
    const cv::Vec3f* from = image.ptr<cv::Vec3f>(imageRow);
    std::copy(from, from + image.cols, row + left);
    ReflectColumns(row, padded.cols, left, right);
  };
  // Each row is finished while it is in the cache; a mirrored row has the mirrored columns of its source row.
  for (int i = 0; i < top; ++i) fillRow(i, top - i);
  for (int y = 0; y < image.rows; ++y) fillRow(top + y, y);
  for (int i = 0; i < bottom; ++i) fillRow(padded.rows - 1 - i, image.rows - 1 - bottom + i);
  return padded;
}

TileBlender::TileBlender(const TileGeometry& geometry)
    : geometry_(geometry), kept_(KeptSquareOf(geometry)), kernels_(SelectBlendKernels()) {
  for (std::size_t i = 0; i < ramps_.size(); ++i) ramps_[i] = MakeRamp(geometry, (i & 1) != 0, (i & 2) != 0);
}

TileBlender::Ramp TileBlender::MakeRamp(const TileGeometry& geometry, bool firstTile, bool lastTile) {
  Ramp ramp;
  for (int position = 0; position < geometry.window; ++position) {
    ramp.values.insert(ramp.values.end(), kChannels, TileRamp(geometry, firstTile, lastTile, position));
  }
  const auto notOne = [](double value) { return value != 1.0; };
  const auto onesBegin = std::find(ramp.values.begin(), ramp.values.end(), 1.0);
  ramp.onesBegin = static_cast<int>(onesBegin - ramp.values.begin());
  ramp.onesEnd = static_cast<int>(std::find_if(onesBegin, ramp.values.end(), notOne) - ramp.values.begin());
  return ramp;
}

const TileBlender::Ramp& TileBlender::RampAt(int origin, int paddedLength) const {
  const std::size_t first = origin == 0 ? 1 : 0;
  const std::size_t last = origin == paddedLength - geometry_.window ? 2 : 0;
  return ramps_[first + last];
}

void TileBlender::ApplyWeights(cv::Mat& tile, int tileX, int tileY) const {
  Blend(tile, tileX, tileY, nullptr);
}

void TileBlender::AddWeighted(cv::Mat& tile, int tileX, int tileY, cv::Mat& accumulator) const {
  cv::Mat target = accumulator(cv::Rect(tileX + kept_.offset, tileY + kept_.offset, kept_.size, kept_.size));
  Blend(tile, tileX, tileY, &target);
}

void TileBlender::Blend(cv::Mat& tile, int tileX, int tileY, cv::Mat* target) const {
  CV_Assert(tile.type() == CV_32FC3);
  // The region test refuses a tile smaller than the window before anything is changed.
  cv::Mat window = tile(cv::Rect(0, 0, geometry_.window, geometry_.window));
  const Ramp& rampX = RampAt(tileX, geometry_.paddedWidth);
  const Ramp& rampY = RampAt(tileY, geometry_.paddedHeight);
  std::vector<float> weights(rampX.values.size());
  std::optional<double> factorOfWeights;
  for (int y = 0; y < geometry_.window; ++y) {
    const double factor = rampY.values[static_cast<std::size_t>(y) * kChannels];
    if (factor != factorOfWeights) {
      kernels_.fillWeights(rampX.values.data(), factor, weights.data(), weights.size());
      factorOfWeights = factor;
    }
    float* row = window.ptr<float>(y);
    WeightRow(row, rampX, factor, weights);
    // Added while the row is in the cache, by the routine behind cv::add.
    const int targetRow = y - kept_.offset;
    if (target == nullptr || targetRow < 0 || targetRow >= kept_.size) continue;
    float* sum = target->ptr<float>(targetRow);
    cv::hal::add32f(sum, 0, row + kept_.offset * kChannels, 0, sum, 0, kept_.size * kChannels, 1, nullptr);
  }
}

void TileBlender::WeightRow(float* row, const Ramp& rampX, double factorY, const std::vector<float>& weights) const {
  const int samples = static_cast<int>(weights.size());
  const int onesBegin = factorY == 1.0 ? rampX.onesBegin : samples;
  const int onesEnd = factorY == 1.0 ? rampX.onesEnd : samples;
  kernels_.applyWeights(row, weights.data(), static_cast<std::size_t>(onesBegin));
  kernels_.applyWeights(row + onesEnd, weights.data() + onesEnd, static_cast<std::size_t>(samples - onesEnd));
}

}  // namespace ulmora
