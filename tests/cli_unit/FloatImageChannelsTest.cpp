#include "cli/FloatImageChannels.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

namespace ulmora::cli {
namespace {

/// What a failed assertion reports, all of which is part of the program's contract.
template <typename Call>
void ExpectAssertion(Call call, const std::string& expression, const std::string& function, int line) {
  try {
    call();
    FAIL() << "nothing was thrown";
  } catch (const cv::Exception& error) {
    EXPECT_EQ(error.code, cv::Error::StsAssert);
    EXPECT_EQ(error.err, expression);
    EXPECT_EQ(error.func, function);
    EXPECT_EQ(error.file, "src/cli/FloatImageChannels.cpp");
    EXPECT_EQ(error.line, line);
  }
}

TEST(FloatImageChannels, Float64LumaTakesRedFirst) {
  const cv::Mat red(1, 1, CV_64FC3, cv::Scalar(1, 0, 0));
  const cv::Mat green(1, 1, CV_64FC3, cv::Scalar(0, 1, 0));
  const cv::Mat blue(1, 1, CV_64FC3, cv::Scalar(0, 0, 1));
  EXPECT_EQ(RgbToGray(red).at<double>(0, 0), 0.299);
  EXPECT_EQ(RgbToGray(green).at<double>(0, 0), 0.587);
  EXPECT_EQ(RgbToGray(blue).at<double>(0, 0), 0.114);
  EXPECT_EQ(RgbToGray(red).type(), CV_64FC1);
}

TEST(FloatImageChannels, OtherDepthsKeepTheirDepthAndTakeRedFirst) {
  const cv::Mat red(4, 4, CV_32FC3, cv::Scalar(1, 0, 0));
  EXPECT_EQ(RgbToGray(red).type(), CV_32FC1);
  EXPECT_EQ(RgbToGray(red).at<float>(3, 3), 0.299F);
  const cv::Mat red16(4, 4, CV_16UC3, cv::Scalar(10000, 0, 0));
  EXPECT_EQ(RgbToGray(red16).type(), CV_16UC1);
  EXPECT_EQ(RgbToGray(red16).at<std::uint16_t>(0, 0), 2990);
}

TEST(FloatImageChannels, GrayBecomesThreeIdenticalPlanes) {
  test::Random random;
  for (const int depth : {CV_32F, CV_64F}) {
    const cv::Mat gray = test::RandomImage(random, 5, 9, CV_MAKETYPE(depth, 1));
    const cv::Mat rgb = GrayToRgb(gray);
    ASSERT_EQ(rgb.type(), CV_MAKETYPE(depth, 3));
    for (int c = 0; c < 3; ++c) {
      cv::Mat plane;
      cv::extractChannel(rgb, plane, c);
      EXPECT_TRUE(test::SameBits(plane, gray));
    }
  }
}

TEST(FloatImageChannels, WrongChannelCountsFailTheirAssertions) {
  for (const int depth : {CV_32F, CV_64F}) {
    const cv::Mat gray(2, 2, CV_MAKETYPE(depth, 1), cv::Scalar(0));
    const cv::Mat rgb(2, 2, CV_MAKETYPE(depth, 3), cv::Scalar(0));
    ExpectAssertion([&] { static_cast<void>(RgbToGray(gray)); }, "image.channels() == 3", "RgbToGray", 22);
    ExpectAssertion([&] { static_cast<void>(GrayToRgb(rgb)); }, "image.channels() == 1", "GrayToRgb", 11);
  }
}

}  // namespace
}  // namespace ulmora::cli
