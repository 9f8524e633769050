#include "common/IsConstantTile.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace ulmora {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

cv::Mat Uniform(int rows = 7, int cols = 9) {
  return {rows, cols, CV_32FC3, cv::Scalar(0.25, 0.5, 0.75)};
}

TEST(IsConstantTile, ChannelsMayDiffer) {
  EXPECT_TRUE(IsConstantTile(Uniform()));
  EXPECT_TRUE(IsConstantTile(Uniform(1, 1)));
  EXPECT_TRUE(IsConstantTile(cv::Mat::zeros(512, 512, CV_32FC3)));
}

TEST(IsConstantTile, OneSampleByTheSmallestStepIsEnough) {
  for (int y = 0; y < 7; ++y) {
    for (int x = 0; x < 9; ++x) {
      for (int c = 0; c < 3; ++c) {
        cv::Mat tile = Uniform();
        float& sample = tile.at<cv::Vec3f>(y, x)[c];
        sample = std::nextafter(sample, 2.0f);
        EXPECT_FALSE(IsConstantTile(tile)) << x << " " << y << " " << c;
      }
    }
  }
}

TEST(IsConstantTile, ZerosOfBothSignsAreEqual) {
  cv::Mat tile = cv::Mat::zeros(4, 4, CV_32FC3);
  tile.at<cv::Vec3f>(2, 1) = cv::Vec3f(-0.0f, 0.0f, -0.0f);
  EXPECT_TRUE(IsConstantTile(tile));
}

TEST(IsConstantTile, NonFiniteTilesAreNotConstant) {
  for (float value : {kNan, kInfinity, -kInfinity}) {
    for (int c = 0; c < 3; ++c) {
      cv::Mat whole = Uniform();
      for (auto pixel = whole.begin<cv::Vec3f>(); pixel != whole.end<cv::Vec3f>(); ++pixel) (*pixel)[c] = value;
      EXPECT_FALSE(IsConstantTile(whole));
      cv::Mat last = Uniform();
      last.at<cv::Vec3f>(6, 8)[c] = value;
      EXPECT_FALSE(IsConstantTile(last));
    }
  }
}

TEST(IsConstantTile, RegionsAreReadByTheirStep) {
  cv::Mat image = Uniform(20, 20);
  image.at<cv::Vec3f>(3, 14) = cv::Vec3f(1, 1, 1);
  EXPECT_TRUE(IsConstantTile(image(cv::Rect(2, 2, 12, 10))));
  EXPECT_FALSE(IsConstantTile(image(cv::Rect(2, 2, 13, 10))));
}

TEST(IsConstantTile, OtherMatricesAreNotConstant) {
  EXPECT_FALSE(IsConstantTile(cv::Mat()));
  EXPECT_FALSE(IsConstantTile(cv::Mat::zeros(4, 4, CV_64FC3)));
  EXPECT_FALSE(IsConstantTile(cv::Mat::zeros(4, 4, CV_8UC3)));
  const std::vector<int> sizes = {2, 2, 2};
  EXPECT_FALSE(IsConstantTile(cv::Mat(sizes, CV_32F, cv::Scalar(0))));
  EXPECT_TRUE(IsConstantTile(cv::Mat::zeros(4, 4, CV_32FC1)));
  EXPECT_TRUE(IsConstantTile(cv::Mat::zeros(4, 4, CV_32FC(5))));
}

TEST(IsConstantTile, RawLayoutsAreChecked) {
  constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max();
  const std::vector<float> samples(24, 0.5f);
  const float* data = samples.data();
  EXPECT_TRUE(IsConstantTile(data, 4, 2, 3, 12));
  EXPECT_FALSE(IsConstantTile(nullptr, 4, 2, 3, 12));
  EXPECT_FALSE(IsConstantTile(data, 0, 2, 3, 12));
  EXPECT_FALSE(IsConstantTile(data, 4, 0, 3, 12));
  EXPECT_FALSE(IsConstantTile(data, 4, 2, 0, 12));
  EXPECT_FALSE(IsConstantTile(data, 4, 2, 3, 11));
  EXPECT_FALSE(IsConstantTile(data, kMax / 2, 2, 3, kMax));
  EXPECT_FALSE(IsConstantTile(data, 4, kMax, 3, 12));
  EXPECT_FALSE(IsConstantTile(data, 4, 3, 3, kMax / 2));
}

TEST(IsConstantTile, SamplesBetweenRawRowsDoNotCount) {
  const std::vector<float> samples = {1, 2, 9, 1, 2, 8};
  EXPECT_TRUE(IsConstantTile(samples.data(), 1, 2, 2, 3));
  EXPECT_FALSE(IsConstantTile(samples.data(), 1, 2, 3, 3));
}

}  // namespace
}  // namespace ulmora
