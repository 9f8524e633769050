#include "common/TileGeometry.h"

#include <algorithm>
#include <stdexcept>

namespace ulmora {
namespace {

int PaddedLength(int length, int stride, int halfOverlap) {
  const int wholeStrides = length % stride == 0 ? length : (length / stride + 1) * stride;
  return wholeStrides + 2 * halfOverlap;
}

double WideRamp(const TileGeometry& geometry, bool firstTile, bool lastTile, int position) {
  // The first pixel has distance 0 and the last one distance 1, so that this ramp and the mirrored one of the
  // neighbour, a stride further on, add up to 1 at every pixel.
  const int fromEnd = geometry.window - position;
  const int edge = std::min(position, fromEnd);
  const int overlap = 2 * geometry.halfOverlap;
  const bool outerSide = (firstTile && position <= fromEnd) || (lastTile && position > fromEnd);
  if (outerSide || edge >= overlap) return 1.0;
  return static_cast<double>(edge) / static_cast<double>(overlap);
}

double NarrowRamp(const TileGeometry& geometry, bool firstTile, bool lastTile, int position) {
  const int halfWindow = geometry.window / 2;
  const int edge = std::min(position, geometry.window - position);
  const bool outerSide = (firstTile && position < halfWindow) || (lastTile && position >= halfWindow);
  if (outerSide) return 1.0;
  return static_cast<double>(edge + geometry.stride - halfWindow) / static_cast<double>(geometry.stride);
}

}  // namespace

TileGeometry TileGeometry::ForImage(int width, int height, int window, int stride) {
  if (width <= 0 || height <= 0 || window <= 0 || stride <= 0 || stride > window || (window - stride) % 2 != 0) {
    throw std::invalid_argument(
        "Invalid tile geometry: positive dimensions and stride within the window with even overlap are required.");
  }
  TileGeometry geometry;
  geometry.width = width;
  geometry.height = height;
  geometry.window = window;
  geometry.stride = stride;
  geometry.halfOverlap = (window - stride) / 2;
  geometry.paddedWidth = PaddedLength(width, stride, geometry.halfOverlap);
  geometry.paddedHeight = PaddedLength(height, stride, geometry.halfOverlap);
  geometry.padLeft = geometry.halfOverlap;
  geometry.padRight = geometry.paddedWidth - width - geometry.halfOverlap;
  geometry.padTop = geometry.halfOverlap;
  geometry.padBottom = geometry.paddedHeight - height - geometry.halfOverlap;
  geometry.tileCount = ((geometry.paddedWidth - window) / stride + 1) * ((geometry.paddedHeight - window) / stride + 1);
  return geometry;
}

double TileGeometry::Weight(int tileX, int tileY, int x, int y) const {
  return TileRamp(*this, tileX == 0, tileX == paddedWidth - window, x) *
         TileRamp(*this, tileY == 0, tileY == paddedHeight - window, y);
}

KeptSquare KeptSquareOf(const TileGeometry& geometry) {
  const int surplus = geometry.halfOverlap - geometry.stride / 2;
  return {std::max(0, surplus), std::min(geometry.window, geometry.window - 2 * surplus)};
}

double TileRamp(const TileGeometry& geometry, bool firstTile, bool lastTile, int position) {
  // Without overlap there is nothing to blend, and no overlap to divide by.
  if (geometry.window == geometry.stride) return 1.0;
  return geometry.stride >= geometry.window / 2 ? WideRamp(geometry, firstTile, lastTile, position)
                                                : NarrowRamp(geometry, firstTile, lastTile, position);
}

}  // namespace ulmora
