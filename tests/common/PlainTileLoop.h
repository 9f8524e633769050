#pragma once
// The tile loop in its plainest form, pixel by pixel and with OpenCV's own arithmetic: what the fast one must equal.

#include "common/IsConstantTile.h"
#include "common/TileGeometry.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <functional>

namespace ulmora::test {

inline cv::Mat PlainPad(const cv::Mat& image, const TileGeometry& g) {
  cv::Mat padded = cv::Mat::zeros(g.height + g.padTop + g.padBottom, g.width + g.padLeft + g.padRight, CV_32FC3);
  image.copyTo(padded(cv::Rect(g.padLeft, g.padTop, g.width, g.height)));
  const auto columns = [&](int y) { return padded(cv::Rect(g.padLeft, y, g.width, 1)); };
  for (int i = 0; i < g.padTop; ++i) image.row(g.padTop - i).copyTo(columns(i));
  for (int i = 0; i < g.padBottom; ++i) {
    image.row(g.height - 1 - g.padBottom + i).copyTo(columns(g.paddedHeight - 1 - i));
  }
  for (int i = 0; i < g.padLeft; ++i) padded.col(2 * g.padLeft - i).copyTo(padded.col(i));
  for (int i = 0; i < g.padRight; ++i) {
    padded.col(g.paddedWidth - 1 - 2 * g.padRight + i).copyTo(padded.col(g.paddedWidth - 1 - i));
  }
  return padded.clone();
}

inline void PlainWeights(cv::Mat& tile, const TileGeometry& g, int tileX, int tileY) {
  for (int x = 0; x < g.window; ++x) {
    for (int y = 0; y < g.window; ++y) {
      cv::Mat pixel = tile(cv::Rect(x, y, 1, 1));
      const float weight = static_cast<float>(g.Weight(tileX, tileY, x, y));
      pixel.convertTo(pixel, -1, static_cast<double>(weight), 0);
    }
  }
}

/// The blended accumulator, of the padded size.
inline cv::Mat PlainBlend(const cv::Mat& padded, const TileGeometry& g,
                          const std::function<cv::Mat(const cv::Mat&)>& infer) {
  cv::Mat accumulator = cv::Mat::zeros(padded.size(), CV_32FC3);
  const int keepOffset = std::max(0, g.halfOverlap - g.stride / 2);
  const int keepSize = std::min(g.window, g.window - 2 * (g.halfOverlap - g.stride / 2));
  const cv::Rect kept(keepOffset, keepOffset, keepSize, keepSize);
  for (int tileX = 0; tileX <= g.paddedWidth - g.window; tileX += g.stride) {
    for (int tileY = 0; tileY <= g.paddedHeight - g.window; tileY += g.stride) {
      const cv::Mat tile = padded(cv::Rect(tileX, tileY, g.window, g.window)).clone();
      cv::Mat out = IsConstantTile(tile) ? tile : infer(tile);
      PlainWeights(out, g, tileX, tileY);
      cv::Mat target = accumulator(kept + cv::Point(tileX, tileY));
      cv::add(target, out(kept), target);
    }
  }
  return accumulator;
}

}  // namespace ulmora::test
