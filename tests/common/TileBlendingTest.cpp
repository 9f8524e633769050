#include "common/TileBlending.h"
#include "common/TileLoop.h"
#include "tests/common/PlainTileLoop.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <vector>

namespace ulmora {
namespace {

struct Regime {
  int window;
  int stride;
};

// Wide, the boundary, narrow, none, stride 2, and odd windows on both sides of the boundary.
constexpr Regime kRegimes[] = {{64, 60}, {64, 32}, {64, 16}, {32, 32}, {24, 2}, {7, 3}, {7, 5}, {9, 3},
                               {9, 1},   {5, 1},   {3, 3},   {3, 1},   {2, 2},  {1, 1}, {8, 4}, {6, 2}};

cv::Mat Pad(const cv::Mat& image, const TileGeometry& g) {
  return PadReflected(image, g.padLeft, g.padTop, g.padRight, g.padBottom);
}

// Changes every sample, depends on its place in the tile, and returns new storage.
cv::Mat Mirrored(const cv::Mat& tile) {
  cv::Mat mirrored;
  cv::flip(tile, mirrored, 1);
  return mirrored;
}

cv::Mat Same(const cv::Mat& tile) {
  return tile.clone();
}

TEST(PadReflected, EqualsThePlainFormAndOpenCvsBorder) {
  test::Random random;
  for (const auto& [window, stride] : kRegimes) {
    const int cols = random.Int(window, 3 * window), rows = random.Int(window, 3 * window);
    const TileGeometry g = TileGeometry::ForImage(cols, rows, window, stride);
    const cv::Mat image = test::AwkwardImage(random, rows, cols);
    const cv::Mat padded = Pad(image, g);
    EXPECT_TRUE(padded.isContinuous());
    EXPECT_TRUE(test::SameBits(padded, test::PlainPad(image, g))) << window << " " << stride;
    cv::Mat bordered;
    cv::copyMakeBorder(image, bordered, g.padTop, g.padBottom, g.padLeft, g.padRight, cv::BORDER_REFLECT_101);
    EXPECT_TRUE(test::SameBits(padded, bordered)) << window << " " << stride;
  }
}

TEST(PadReflected, CopiesRegionsAndLeavesThemAlone) {
  test::Random random;
  const cv::Mat image = test::RandomImage(random, 20, 20, CV_32FC3);
  const cv::Mat region = image(cv::Rect(4, 3, 9, 11));
  cv::Mat padded = PadReflected(region, 2, 3, 4, 5);
  EXPECT_TRUE(test::SameBits(padded(cv::Rect(2, 3, 9, 11)), region));
  const cv::Mat before = image.clone();
  padded.setTo(cv::Scalar::all(7));
  EXPECT_TRUE(test::SameBits(image, before));
  EXPECT_TRUE(test::SameBits(PadReflected(region, 0, 0, 0, 0), region));
}

TEST(PadReflected, RefusesWhatItCannotReflect) {
  EXPECT_THROW(static_cast<void>(PadReflected(cv::Mat::zeros(4, 4, CV_32FC3), 4, 0, 0, 0)), cv::Exception);
  EXPECT_THROW(static_cast<void>(PadReflected(cv::Mat::zeros(4, 4, CV_32FC3), 0, 0, 0, 4)), cv::Exception);
  EXPECT_THROW(static_cast<void>(PadReflected(cv::Mat::zeros(4, 4, CV_64FC3), 1, 1, 1, 1)), cv::Exception);
}

// Every tile of a 3 by 3 grid has another pair of ramps.
TEST(TileBlending, WeightsHaveTheBitsOfConvertTo) {
  test::Random random;
  for (const auto& [window, stride] : kRegimes) {
    const TileGeometry g = TileGeometry::ForImage(2 * stride + 1, 2 * stride + 1, window, stride);
    const TileBlender blender(g);
    for (int tileX = 0; tileX <= 2 * stride; tileX += stride) {
      for (int tileY = 0; tileY <= 2 * stride; tileY += stride) {
        cv::Mat tile = test::AwkwardImage(random, window, window);
        cv::Mat expected = tile.clone();
        test::PlainWeights(expected, g, tileX, tileY);
        blender.ApplyWeights(tile, tileX, tileY);
        ASSERT_TRUE(test::SameBits(tile, expected)) << window << " " << stride << " " << tileX << " " << tileY;
      }
    }
  }
}

TEST(TileBlending, AWholeTileHasTheBitsOfConvertTo) {
  test::Random random;
  for (int stride : {512, 480, 256, 128, 2}) {
    const TileGeometry g = TileGeometry::ForImage(2000, 2000, 512, stride);
    cv::Mat tile = test::AwkwardImage(random, 512, 512);
    cv::Mat expected = tile.clone();
    test::PlainWeights(expected, g, stride, 0);
    TileBlender(g).ApplyWeights(tile, stride, 0);
    EXPECT_TRUE(test::SameBits(tile, expected)) << stride;
  }
}

TEST(TileBlending, WeightsTilesWithinLargerStorage) {
  test::Random random;
  const TileGeometry g = TileGeometry::ForImage(30, 30, 16, 12);
  cv::Mat sheet = test::RandomImage(random, 40, 40, CV_32FC3);
  const cv::Mat before = sheet.clone();
  cv::Mat tile = sheet(cv::Rect(5, 6, 16, 16));
  cv::Mat expected = tile.clone();
  test::PlainWeights(expected, g, 0, 12);
  TileBlender(g).ApplyWeights(tile, 0, 12);
  EXPECT_TRUE(test::SameBits(tile, expected));
  before(cv::Rect(5, 6, 16, 16)).copyTo(tile);
  EXPECT_TRUE(test::SameBits(sheet, before)) << "something outside the tile changed";
}

TEST(TileBlending, BlendHasTheBitsOfThePlainForm) {
  test::Random random;
  for (const auto& [window, stride] : kRegimes) {
    for (const TileFunction& infer : {TileFunction(Same), TileFunction(Mirrored)}) {
      const int cols = random.Int(window, 2 * window), rows = random.Int(window, 2 * window);
      const TileGeometry g = TileGeometry::ForImage(cols, rows, window, stride);
      for (const cv::Mat& image :
           {test::AwkwardImage(random, rows, cols), test::RandomImage(random, rows, cols, CV_32FC3)}) {
        const cv::Mat padded = Pad(image, g);
        ASSERT_TRUE(test::SameBits(BlendTiles(padded, g, infer, {}), test::PlainBlend(padded, g, infer)))
            << cols << " x " << rows << ", window " << window << ", stride " << stride;
      }
    }
  }
}

TEST(TileBlending, BlendHasTheBitsOfThePlainFormAtFullSize) {
  test::Random random;
  for (int stride : {512, 480, 256}) {
    const TileGeometry g = TileGeometry::ForImage(600, 513, 512, stride);
    const cv::Mat padded = Pad(test::RandomImage(random, 513, 600, CV_32FC3), g);
    EXPECT_TRUE(test::SameBits(BlendTiles(padded, g, Mirrored, {}), test::PlainBlend(padded, g, Mirrored))) << stride;
  }
}

TEST(TileBlending, BlendHasTheBitsOfThePlainFormForRandomLayouts) {
  test::Random random;
  for (int i = 0; i < 60; ++i) {
    const int window = random.Int(1, 20);
    const int stride = window - 2 * random.Int(0, (window - 1) / 2);
    const int cols = random.Int(window, 40), rows = random.Int(window, 40);
    const TileGeometry g = TileGeometry::ForImage(cols, rows, window, stride);
    const cv::Mat padded = Pad(test::AwkwardImage(random, rows, cols), g);
    ASSERT_TRUE(test::SameBits(BlendTiles(padded, g, Mirrored, {}), test::PlainBlend(padded, g, Mirrored)))
        << cols << " x " << rows << ", window " << window << ", stride " << stride;
  }
}

TEST(TileBlending, RefusesUnfitTilesBeforeChangingAnything) {
  const TileGeometry g = TileGeometry::ForImage(30, 30, 16, 4);
  const TileBlender blender(g);
  cv::Mat accumulator = cv::Mat::zeros(g.paddedHeight, g.paddedWidth, CV_32FC3);
  for (const cv::Mat& unfit : {cv::Mat(16, 15, CV_32FC3, cv::Scalar::all(1)), cv::Mat(15, 16, CV_32FC3),
                               cv::Mat(16, 16, CV_32FC1), cv::Mat(16, 16, CV_64FC3), cv::Mat()}) {
    cv::Mat tile = unfit;
    EXPECT_THROW(blender.AddWeighted(tile, 0, 0, accumulator), cv::Exception);
  }
  EXPECT_EQ(cv::norm(accumulator, cv::NORM_INF), 0.0);
}

}  // namespace
}  // namespace ulmora
