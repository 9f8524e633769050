#include "common/TileLoop.h"

#include "common/IsConstantTile.h"
#include "common/TileBlending.h"

namespace ulmora {
namespace {

// One buffer serves all tiles, unless a tile function has kept a header of it.
void CopyTile(const cv::Mat& padded, const cv::Rect& region, cv::Mat& tile) {
  if (tile.u != nullptr && tile.u->refcount > 1) tile.release();
  padded(region).copyTo(tile);
}

}  // namespace

cv::Mat BlendTiles(const cv::Mat& padded, const TileGeometry& geometry, const TileFunction& infer,
                   const TileLoopHooks& hooks) {
  const TileBlender blender(geometry);
  cv::Mat accumulator = cv::Mat::zeros(padded.rows, padded.cols, CV_32FC3);
  cv::Mat tile;
  int count = 0;
  for (int tileX = 0; tileX <= geometry.paddedWidth - geometry.window; tileX += geometry.stride) {
    for (int tileY = 0; tileY <= geometry.paddedHeight - geometry.window; tileY += geometry.stride) {
      ++count;
      if (hooks.beforeTile) hooks.beforeTile(count);
      CopyTile(padded, cv::Rect(tileX, tileY, geometry.window, geometry.window), tile);
      cv::Mat out = IsConstantTile(tile) ? tile : infer(tile);
      if (hooks.checkTile) hooks.checkTile(out);
      blender.AddWeighted(out, tileX, tileY, accumulator);
      if (hooks.afterTile) hooks.afterTile(count);
    }
  }
  return accumulator;
}

}  // namespace ulmora
