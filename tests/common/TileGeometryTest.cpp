#include "common/TileGeometry.h"
#include "tests/support/Compare.h"
#include "tests/support/Random.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace ulmora {
namespace {

TEST(TileGeometry, DefaultIsAllZero) {
  const TileGeometry geometry;
  const auto& [width, height, window, stride, halfOverlap, paddedWidth, paddedHeight, padLeft, padRight, padTop,
               padBottom, tileCount] = geometry;
  for (int value : {width, height, window, stride, halfOverlap, paddedWidth, paddedHeight, padLeft, padRight, padTop,
                    padBottom, tileCount}) {
    EXPECT_EQ(value, 0);
  }
}

TEST(TileGeometry, PadsToWholeStridesOnTheRightAndBottom) {
  const TileGeometry geometry = TileGeometry::ForImage(1000, 700, 512, 480);
  EXPECT_EQ(geometry.width, 1000);
  EXPECT_EQ(geometry.height, 700);
  EXPECT_EQ(geometry.window, 512);
  EXPECT_EQ(geometry.stride, 480);
  EXPECT_EQ(geometry.halfOverlap, 16);
  EXPECT_EQ(geometry.paddedWidth, 1472);
  EXPECT_EQ(geometry.paddedHeight, 992);
  EXPECT_EQ(geometry.padLeft, 16);
  EXPECT_EQ(geometry.padRight, 456);
  EXPECT_EQ(geometry.padTop, 16);
  EXPECT_EQ(geometry.padBottom, 276);
  EXPECT_EQ(geometry.tileCount, 6);
}

TEST(TileGeometry, AWindowWiderThanAStrideTakesFourTiles) {
  const TileGeometry geometry = TileGeometry::ForImage(512, 512, 512, 480);
  EXPECT_EQ(geometry.paddedWidth, 992);
  EXPECT_EQ(geometry.paddedHeight, 992);
  EXPECT_EQ(geometry.tileCount, 4);
  EXPECT_EQ(TileGeometry::ForImage(513, 513, 512, 480).tileCount, 4);
}

TEST(TileGeometry, StrideOfTheWindowNeedsNeitherPaddingNorBlending) {
  const TileGeometry geometry = TileGeometry::ForImage(512, 512, 512, 512);
  EXPECT_EQ(geometry.paddedWidth, 512);
  EXPECT_EQ(geometry.paddedHeight, 512);
  EXPECT_EQ(geometry.padRight, 0);
  EXPECT_EQ(geometry.tileCount, 1);
  for (int y = 0; y < 512; ++y) {
    for (int x = 0; x < 512; ++x) ASSERT_EQ(geometry.Weight(0, 0, x, y), 1.0);
  }
}

TEST(TileGeometry, AMultipleOfTheStrideGetsNoSlack) {
  const TileGeometry geometry = TileGeometry::ForImage(960, 480, 512, 480);
  EXPECT_EQ(geometry.padRight, 16);
  EXPECT_EQ(geometry.padBottom, 16);
  EXPECT_EQ(geometry.paddedWidth, 992);
  EXPECT_EQ(geometry.paddedHeight, 512);
  EXPECT_EQ(geometry.tileCount, 2);
}

TEST(TileGeometry, RandomLayoutsKeepTheInvariants) {
  test::Random random;
  for (int i = 0; i < 2000; ++i) {
    const int window = random.Int(1, 700);
    const int stride = window - 2 * random.Int(0, (window - 1) / 2);
    const int width = random.Int(1, 5000), height = random.Int(1, 5000);
    const TileGeometry geometry = TileGeometry::ForImage(width, height, window, stride);
    const int columns = (width + stride - 1) / stride, rows = (height + stride - 1) / stride;
    ASSERT_EQ(geometry.paddedWidth, columns * stride + window - stride);
    ASSERT_EQ(geometry.paddedHeight, rows * stride + window - stride);
    ASSERT_EQ(geometry.tileCount, columns * rows);
    ASSERT_EQ(geometry.padLeft + width + geometry.padRight, geometry.paddedWidth);
    ASSERT_EQ(geometry.padTop + height + geometry.padBottom, geometry.paddedHeight);
    ASSERT_EQ(geometry.padLeft, geometry.halfOverlap);
    ASSERT_EQ(geometry.padTop, geometry.halfOverlap);
  }
}

TEST(TileGeometry, RefusesBadArguments) {
  struct Arguments {
    int width, height, window, stride;
  };
  for (const Arguments& given :
       {Arguments{0, 512, 512, 480}, Arguments{512, 0, 512, 480}, Arguments{512, 512, 0, 480},
        Arguments{512, 512, 512, 0}, Arguments{-1, 512, 512, 480}, Arguments{512, 512, 512, -480},
        Arguments{512, 512, 512, 514}, Arguments{512, 512, 512, 479}}) {
    EXPECT_EQ(test::ThrownText<std::invalid_argument>([&] {
                static_cast<void>(TileGeometry::ForImage(given.width, given.height, given.window, given.stride));
              }),
              "Invalid tile geometry: positive dimensions and stride within the window with even overlap are required.")
        << given.width << " " << given.height << " " << given.window << " " << given.stride;
  }
}

TEST(TileGeometry, AnImageSmallerThanTheWindowIsNotItsConcern) {
  EXPECT_EQ(TileGeometry::ForImage(10, 10, 512, 480).tileCount, 1);
}

TEST(TileWeight, WideRampRunsOverTheOverlapBand) {
  const TileGeometry geometry = TileGeometry::ForImage(2000, 2000, 512, 480);
  EXPECT_EQ(geometry.Weight(480, 480, 0, 256), 0.0);
  EXPECT_EQ(geometry.Weight(960, 480, 0, 256), 0.0);
  EXPECT_EQ(geometry.Weight(480, 480, 16, 256), 0.5);
  EXPECT_EQ(geometry.Weight(480, 480, 31, 256), 31.0 / 32.0);
  EXPECT_EQ(geometry.Weight(480, 480, 32, 256), 1.0);
  EXPECT_EQ(geometry.Weight(480, 480, 480, 256), 1.0);
  EXPECT_EQ(geometry.Weight(480, 480, 511, 256), 1.0 / 32.0);
  EXPECT_EQ(geometry.Weight(480, 480, 16, 8), 0.5 * 0.25);
}

TEST(TileWeight, TheImageBorderIsNeverFaded) {
  const TileGeometry geometry = TileGeometry::ForImage(2000, 2000, 512, 480);
  const int last = geometry.paddedWidth - 512;
  EXPECT_EQ(geometry.Weight(0, 0, 0, 0), 1.0);
  EXPECT_EQ(geometry.Weight(0, 0, 256, 256), 1.0);
  EXPECT_EQ(geometry.Weight(0, 0, 511, 0), 1.0 / 32.0);
  EXPECT_EQ(geometry.Weight(last, last, 511, 511), 1.0);
  EXPECT_EQ(geometry.Weight(last, last, 0, 511), 0.0);
}

TEST(TileWeight, HalfTheWindowIsStillTheWideRamp) {
  const TileGeometry geometry = TileGeometry::ForImage(2000, 2000, 512, 256);
  EXPECT_EQ(geometry.Weight(256, 256, 64, 256), 0.25);
  EXPECT_EQ(geometry.Weight(256, 256, 256, 256), 1.0);
  EXPECT_EQ(geometry.Weight(256, 256, 0, 256), 0.0);
}

TEST(TileWeight, NarrowRampIsATriangleAboutTheCentre) {
  const TileGeometry geometry = TileGeometry::ForImage(2000, 2000, 512, 128);
  EXPECT_EQ(geometry.Weight(128, 128, 128, 256), 0.0);
  EXPECT_EQ(geometry.Weight(128, 128, 192, 256), 0.5);
  EXPECT_EQ(geometry.Weight(128, 128, 256, 256), 1.0);
  EXPECT_EQ(geometry.Weight(128, 128, 320, 256), 0.5);
  EXPECT_EQ(geometry.Weight(128, 128, 0, 256), -1.0);
  EXPECT_EQ(geometry.Weight(128, 128, 0, 0), 1.0);
  EXPECT_EQ(geometry.Weight(0, 128, 255, 256), 1.0);
  EXPECT_EQ(geometry.Weight(0, 128, 257, 256), 127.0 / 128.0);
}

TEST(TileWeight, OddWindowsKeepTheTwoRegimesApart) {
  // Wide: the middle pixel counts to the first half. window - x = 4 at x = 3, so x <= window - x.
  const TileGeometry wide = TileGeometry::ForImage(20, 20, 7, 3);
  EXPECT_EQ(wide.Weight(0, 3, 3, 3), 1.0 * 0.75);
  EXPECT_EQ(wide.Weight(wide.paddedWidth - 7, 3, 3, 3), 0.75 * 0.75);
  EXPECT_EQ(wide.Weight(wide.paddedWidth - 7, 3, 4, 3), 1.0 * 0.75);
  // Narrow: it counts to the second half, since x < window / 2 fails at x = 4.
  const TileGeometry narrow = TileGeometry::ForImage(20, 20, 9, 3);
  EXPECT_EQ(narrow.Weight(0, 3, 3, 4), 1.0);
  EXPECT_EQ(narrow.Weight(0, 3, 6, 4), 2.0 / 3.0);
  EXPECT_EQ(narrow.Weight(narrow.paddedWidth - 9, 3, 3, 4), 2.0 / 3.0);
  EXPECT_EQ(narrow.Weight(narrow.paddedWidth - 9, 3, 6, 4), 1.0);
}

TEST(KeptSquare, IsTheTileOrItsCentre) {
  const auto expectKept = [](int window, int stride, int offset, int size) {
    const KeptSquare kept = KeptSquareOf(TileGeometry::ForImage(window, window, window, stride));
    EXPECT_EQ(kept.offset, offset) << window << " " << stride;
    EXPECT_EQ(kept.size, size) << window << " " << stride;
  };
  expectKept(512, 512, 0, 512);
  expectKept(512, 480, 0, 512);
  expectKept(512, 256, 0, 512);
  expectKept(512, 128, 128, 256);
  expectKept(512, 2, 254, 4);
  expectKept(9, 3, 2, 5);
}

// The sum over all tiles of the weights with which a pixel of the padded image enters the accumulator.
std::vector<double> SummedWeights(const TileGeometry& geometry) {
  const KeptSquare kept = KeptSquareOf(geometry);
  std::vector<double> sums(static_cast<std::size_t>(geometry.paddedWidth) *
                           static_cast<std::size_t>(geometry.paddedHeight));
  for (int tileX = 0; tileX <= geometry.paddedWidth - geometry.window; tileX += geometry.stride) {
    for (int tileY = 0; tileY <= geometry.paddedHeight - geometry.window; tileY += geometry.stride) {
      for (int y = kept.offset; y < kept.offset + kept.size; ++y) {
        const auto row = static_cast<std::size_t>(tileY + y) * static_cast<std::size_t>(geometry.paddedWidth);
        for (int x = kept.offset; x < kept.offset + kept.size; ++x) {
          sums[row + static_cast<std::size_t>(tileX + x)] += geometry.Weight(tileX, tileY, x, y);
        }
      }
    }
  }
  return sums;
}

void ExpectUnitSums(const TileGeometry& geometry) {
  const std::vector<double> sums = SummedWeights(geometry);
  for (int y = geometry.padTop; y < geometry.padTop + geometry.height; ++y) {
    for (int x = geometry.padLeft; x < geometry.padLeft + geometry.width; ++x) {
      const auto i = static_cast<std::size_t>(y) * static_cast<std::size_t>(geometry.paddedWidth);
      ASSERT_NEAR(sums[i + static_cast<std::size_t>(x)], 1.0, 1e-14)
          << "window " << geometry.window << ", stride " << geometry.stride << ", pixel " << x << " " << y;
    }
  }
}

TEST(TileWeight, AddsUpToOneAtEveryPixel) {
  ExpectUnitSums(TileGeometry::ForImage(1000, 700, 512, 480));
  ExpectUnitSums(TileGeometry::ForImage(1024, 600, 512, 512));
  ExpectUnitSums(TileGeometry::ForImage(600, 530, 512, 256));
  ExpectUnitSums(TileGeometry::ForImage(530, 514, 512, 128));
  ExpectUnitSums(TileGeometry::ForImage(513, 512, 512, 2));
}

TEST(TileWeight, AddsUpToOneForRandomEvenWindows) {
  test::Random random;
  for (int i = 0; i < 300; ++i) {
    const int window = 2 * random.Int(1, 20);
    const int stride = 2 * random.Int(1, window / 2);
    ExpectUnitSums(TileGeometry::ForImage(random.Int(window, 60), random.Int(window, 60), window, stride));
  }
}

}  // namespace
}  // namespace ulmora
