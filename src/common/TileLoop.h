#pragma once
// The loop over tiles that both forms of tiled inference share: cut, run, weight, add.

#include "common/TileGeometry.h"

#include <opencv2/core.hpp>

#include <functional>

namespace ulmora {

/// Turns one continuous CV_32FC3 tile of window x window pixels into a new one of the same shape. The loop scales what
/// it is given in place.
using TileFunction = std::function<cv::Mat(const cv::Mat&)>;

/// What the two forms of the loop do around a tile. Each may throw, which ends the loop; empty ones are skipped.
struct TileLoopHooks {
  std::function<void(int tilesBegun)> beforeTile;     ///< counted from 1
  std::function<void(const cv::Mat& out)> checkTile;  ///< sees the tile function's result, or a constant tile
  std::function<void(int tilesDone)> afterTile;       ///< counted from 1
};

/// Runs every tile of a padded image that is not constant through the tile function and returns the weighted sum, of
/// the padded size, CV_32FC3. Tile columns outermost, which fixes the order of the additions. Throws what the tile
/// function and the hooks throw, and cv::Exception for a result that is no window x window CV_32FC3 tile.
[[nodiscard]] cv::Mat BlendTiles(const cv::Mat& padded, const TileGeometry& geometry, const TileFunction& infer,
                                 const TileLoopHooks& hooks);

}  // namespace ulmora
