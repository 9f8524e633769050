#pragma once
// The arithmetic of the tile loop: reflection padding, and tiles weighted and added up.

#include "common/BlendKernels.h"
#include "common/TileGeometry.h"

#include <opencv2/core.hpp>

#include <array>
#include <vector>

namespace ulmora {

/// A new CV_32FC3 image with the given one at (left, top) and its border mirrored outwards without repeating the edge
/// pixel, rows first and then whole columns. Each pad is smaller than the image in its direction.
[[nodiscard]] cv::Mat PadReflected(const cv::Mat& image, int left, int top, int right, int bottom);

/// Weights tiles and adds them up. The result has the bits of the plain form: every pixel scaled by
/// cv::Mat::convertTo with its TileGeometry::Weight narrowed to float, then cv::add. Since a weight is the product of
/// two ramps and a ramp depends only on whether a tile is the first or the last of its line, all ramps are computed
/// once, and a row of weights once for every run of equal rows.
class TileBlender {
 public:
  explicit TileBlender(const TileGeometry& geometry);

  /// Scales the window x window CV_32FC3 tile with this origin in place, also outside its kept square.
  void ApplyWeights(cv::Mat& tile, int tileX, int tileY) const;

  /// The same, then adds the tile's kept square to the accumulator, which is CV_32FC3 and has the padded size. Throws
  /// cv::Exception for a tile of another type or smaller than the window.
  void AddWeighted(cv::Mat& tile, int tileX, int tileY, cv::Mat& accumulator) const;

 private:
  /// The ramp along one axis, each value three times, once per sample of a pixel, and the range of samples with weight
  /// 1, in which a row of full weight stays as it is.
  struct Ramp {
    std::vector<double> values;
    int onesBegin = 0;
    int onesEnd = 0;
  };

  static Ramp MakeRamp(const TileGeometry& geometry, bool firstTile, bool lastTile);
  [[nodiscard]] const Ramp& RampAt(int origin, int paddedLength) const;
  void Blend(cv::Mat& tile, int tileX, int tileY, cv::Mat* accumulator) const;
  void WeightRow(float* row, const Ramp& rampX, double factorY, const std::vector<float>& weights) const;

  TileGeometry geometry_;
  KeptSquare kept_;
  BlendKernels kernels_;
  std::array<Ramp, 4> ramps_;  ///< by "is the first tile" and twice "is the last tile"
};

}  // namespace ulmora
