#pragma once
// How an image is cut into overlapping square tiles, and with what weight each pixel of a tile enters the result.

namespace ulmora {

/// The tile layout of one image; all lengths in pixels. A value made by ForImage has positive width, height, window and
/// stride, stride <= window, an even overlap window - stride, and padded dimensions that exceed the window by a
/// multiple of the stride. The image lies at (padLeft, padTop) in the padded image.
struct TileGeometry {
  int width = 0;         ///< image columns
  int height = 0;        ///< image rows
  int window = 0;        ///< side of a tile
  int stride = 0;        ///< distance between neighbouring tile origins, in both directions
  int halfOverlap = 0;   ///< (window - stride) / 2: margin of a tile outside its own stride cell
  int paddedWidth = 0;   ///< columns of the padded image
  int paddedHeight = 0;  ///< rows of the padded image
  int padLeft = 0;       ///< always halfOverlap
  int padRight = 0;      ///< halfOverlap and the slack up to a whole number of strides
  int padTop = 0;        ///< always halfOverlap
  int padBottom = 0;     ///< halfOverlap and the slack up to a whole number of strides
  int tileCount = 0;     ///< tiles of the whole grid

  /// The layout for an image of `width` columns and `height` rows. Throws std::invalid_argument if an argument is not
  /// positive, the stride exceeds the window, or the overlap is odd. Checks neither for overflow nor that the image is
  /// as large as the window; callers do.
  static TileGeometry ForImage(int width, int height, int window, int stride);

  /// The blending weight of column x and row y of the tile whose origin in the padded image is (tileX, tileY): the
  /// product of TileRamp in x and in y. Over the tiles' accumulated regions the weights of an image pixel add up to 1.
  [[nodiscard]] double Weight(int tileX, int tileY, int x, int y) const;
};

/// The part of a tile that enters the accumulator: a square at (offset, offset) in the tile, `size` pixels on a side.
struct KeptSquare {
  int offset = 0;
  int size = 0;
};

/// The whole tile if the stride is at least half the window, else the central square in which the ramp is not negative.
[[nodiscard]] KeptSquare KeptSquareOf(const TileGeometry& geometry);

/// The weight along one axis at `position` (0 to window - 1) of a tile that is or is not the first and the last of its
/// row or column of tiles. 1 where no neighbour takes over; otherwise a linear ramp over the overlap band, or, for a
/// stride below half the window, a triangle about the tile's centre, which is negative outside the kept square.
[[nodiscard]] double TileRamp(const TileGeometry& geometry, bool firstTile, bool lastTile, int position);

}  // namespace ulmora
