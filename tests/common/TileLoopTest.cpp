#include "common/IsConstantTile.h"
#include "common/TileLoop.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace ulmora {
namespace {

// Tiles of 8 pixels at a stride of 4 over an image that needs no slack: 3 columns and 2 rows of tiles.
const TileGeometry kGrid = TileGeometry::ForImage(12, 8, 8, 4);

// A padded image of the grid in which every tile differs from the others.
cv::Mat PaddedRamp() {
  cv::Mat padded(kGrid.paddedHeight, kGrid.paddedWidth, CV_32FC3);
  for (int y = 0; y < padded.rows; ++y) {
    for (int x = 0; x < padded.cols; ++x) {
      padded.at<cv::Vec3f>(y, x) = cv::Vec3f(static_cast<float>(x), static_cast<float>(y), 1.0f);
    }
  }
  return padded;
}

TEST(TileLoop, ColumnsOfTilesAreOutermost) {
  std::vector<cv::Point> origins;
  const cv::Mat padded = PaddedRamp();
  static_cast<void>(BlendTiles(padded, kGrid,
                               [&](const cv::Mat& tile) {
                                 const cv::Vec3f first = tile.at<cv::Vec3f>(0, 0);
                                 origins.emplace_back(static_cast<int>(first[0]), static_cast<int>(first[1]));
                                 return tile.clone();
                               },
                               {}));
  const std::vector<cv::Point> expected = {{0, 0}, {0, 4}, {4, 0}, {4, 4}, {8, 0}, {8, 4}};
  EXPECT_EQ(origins, expected);
}

TEST(TileLoop, TilesAreContinuousCopies) {
  const cv::Mat padded = PaddedRamp();
  const cv::Mat before = padded.clone();
  static_cast<void>(BlendTiles(padded, kGrid,
                               [&](const cv::Mat& tile) {
                                 EXPECT_TRUE(tile.isContinuous());
                                 EXPECT_EQ(tile.size(), cv::Size(8, 8));
                                 EXPECT_EQ(tile.type(), CV_32FC3);
                                 return tile;  // not what the contract asks for; even so only the copy may be scaled
                               },
                               {}));
  EXPECT_TRUE(test::SameBits(padded, before));
}

TEST(TileLoop, AKeptTileIsNotWrittenAgain) {
  std::vector<cv::Mat> kept;
  const cv::Mat padded = PaddedRamp();
  const auto keep = [&](const cv::Mat& tile) {
    kept.push_back(tile);
    return tile.clone();
  };
  static_cast<void>(BlendTiles(padded, kGrid, keep, {}));
  ASSERT_EQ(kept.size(), 6u);
  EXPECT_TRUE(test::SameBits(kept[0], padded(cv::Rect(0, 0, 8, 8))));
  EXPECT_TRUE(test::SameBits(kept[3], padded(cv::Rect(4, 4, 8, 8))));
}

TEST(TileLoop, HooksSurroundEveryTileInOrder) {
  std::string order;
  TileLoopHooks hooks;
  hooks.beforeTile = [&](int begun) { order += "b" + std::to_string(begun); };
  hooks.checkTile = [&](const cv::Mat&) { order += "c"; };
  hooks.afterTile = [&](int done) { order += "a" + std::to_string(done) + " "; };
  const auto run = [&](const cv::Mat& tile) {
    order += "r";
    return tile.clone();
  };
  static_cast<void>(BlendTiles(PaddedRamp(), kGrid, run, hooks));
  EXPECT_EQ(order, "b1rca1 b2rca2 b3rca3 b4rca4 b5rca5 b6rca6 ");
  order.clear();
  static_cast<void>(
      BlendTiles(cv::Mat(kGrid.paddedHeight, kGrid.paddedWidth, CV_32FC3, cv::Scalar(1, 2, 3)), kGrid, run, hooks));
  EXPECT_EQ(order, "b1ca1 b2ca2 b3ca3 b4ca4 b5ca5 b6ca6 ") << "constant tiles skip the tile function alone";
}

TEST(TileLoop, OneOddSampleSendsItsTilesToTheFunction) {
  cv::Mat padded(kGrid.paddedHeight, kGrid.paddedWidth, CV_32FC3, cv::Scalar::all(0.5));
  padded.at<cv::Vec3f>(0, 0)[2] = std::nextafter(0.5f, 1.0f);
  int calls = 0;
  const auto count = [&](const cv::Mat& tile) {
    ++calls;
    return tile.clone();
  };
  static_cast<void>(BlendTiles(padded, kGrid, count, {}));
  EXPECT_EQ(calls, 1);
  padded.at<cv::Vec3f>(0, 0) = cv::Vec3f(std::nanf(""), 0.5f, 0.5f);
  static_cast<void>(BlendTiles(padded, kGrid, count, {}));
  EXPECT_EQ(calls, 2);
}

TEST(TileLoop, FailuresPassThrough) {
  const auto fail = [](const cv::Mat&) -> cv::Mat { throw std::runtime_error("no luck"); };
  EXPECT_EQ(test::ThrownText<std::runtime_error>([&] { static_cast<void>(BlendTiles(PaddedRamp(), kGrid, fail, {})); }),
            "no luck");
  const auto crop = [](const cv::Mat& tile) { return tile(cv::Rect(0, 0, 7, 8)).clone(); };
  EXPECT_THROW(static_cast<void>(BlendTiles(PaddedRamp(), kGrid, crop, {})), cv::Exception);
}

}  // namespace
}  // namespace ulmora
