#include "common/GridAlignedResample.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace ulmora {
namespace {

constexpr const char* kFloatImage =
    "!source.empty() && source.dims == 2 && (source.depth() == CV_32F || source.depth() == CV_64F)";

TEST(GridAlignedResample, DownUndoesUpExactly) {
  test::Random random;
  for (int type : {CV_32FC1, CV_32FC3, CV_32FC(5), CV_64FC1, CV_64FC3, CV_64FC(7)}) {
    for (int i = 0; i < 20; ++i) {
      const cv::Mat image = test::RandomImage(random, random.Int(1, 12), random.Int(1, 12), type);
      const cv::Mat enlarged = UpsampleGridCubic2x(image);
      EXPECT_EQ(enlarged.size(), image.size() * 2);
      EXPECT_TRUE(test::SameBits(DownsampleGrid2x(enlarged, image.size()), image));
    }
  }
}

TEST(GridAlignedResample, DownUndoesUpForAwkwardContent) {
  test::Random random;
  const cv::Mat image = test::AwkwardImage(random, 17, 13);
  EXPECT_TRUE(test::SameBits(DownsampleGrid2x(UpsampleGridCubic2x(image), image.size()), image));
}

TEST(GridAlignedResample, OnePixelBecomesFour) {
  const cv::Mat pixel(1, 1, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3));
  EXPECT_TRUE(test::SameBits(UpsampleGridCubic2x(pixel), cv::Mat(2, 2, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3))));
}

TEST(GridAlignedResample, ConstantStaysConstant) {
  for (int type : {CV_32FC3, CV_64FC3}) {
    const cv::Scalar colour(0.1, 1.0 / 3.0, 0.7);
    EXPECT_TRUE(test::SameBits(UpsampleGridCubic2x(cv::Mat(5, 4, type, colour)), cv::Mat(10, 8, type, colour)));
  }
}

TEST(GridAlignedResample, KernelOvershoots) {
  const cv::Mat step = (cv::Mat_<double>(1, 4) << 0, 0, 1, 1);
  const cv::Mat enlarged = UpsampleGridCubic2x(step);
  // The row is enlarged to itself and, one pixel being the whole column, to the same once more.
  const cv::Mat expected = (cv::Mat_<double>(2, 8) << 0, -0.09375, 0, 0.5, 1, 1.09375, 1, 1,  //
                            0, -0.09375, 0, 0.5, 1, 1.09375, 1, 1);
  EXPECT_TRUE(test::SameBits(enlarged, expected));
}

// The definition, sample by sample, as an expectation of its own.
double HalfWay(double a, double b, double c, double d) {
  return a == b && b == c && c == d ? b : 0.59375 * b - 0.09375 * a + 0.59375 * c - 0.09375 * d;
}

TEST(GridAlignedResample, RowsFirstThenColumnsWithReplicatedEdges) {
  test::Random random;
  const cv::Mat image = test::RandomImage(random, 5, 6, CV_64FC1);
  const cv::Mat enlarged = UpsampleGridCubic2x(image);
  const auto across = [&](int y, int x) {
    if (x % 2 == 0) return image.at<double>(y, x / 2);
    const int at = x / 2;
    return HalfWay(image.at<double>(y, std::max(at - 1, 0)), image.at<double>(y, at),
                   image.at<double>(y, std::min(at + 1, 5)), image.at<double>(y, std::min(at + 2, 5)));
  };
  for (int y = 0; y < 10; ++y) {
    const int at = y / 2;
    for (int x = 0; x < 12; ++x) {
      const double expected = y % 2 == 0 ? across(at, x)
                                         : HalfWay(across(std::max(at - 1, 0), x), across(at, x),
                                                   across(std::min(at + 1, 4), x), across(std::min(at + 2, 4), x));
      ASSERT_EQ(enlarged.at<double>(y, x), expected) << x << " " << y;
    }
  }
}

TEST(GridAlignedResample, RegionsAreReadByTheirStep) {
  test::Random random;
  const cv::Mat image = test::RandomImage(random, 12, 14, CV_32FC3);
  const cv::Mat region = image(cv::Rect(3, 2, 6, 8));
  EXPECT_TRUE(test::SameBits(UpsampleGridCubic2x(region), UpsampleGridCubic2x(region.clone())));
  EXPECT_TRUE(test::SameBits(DownsampleGrid2x(region, {3, 4}), DownsampleGrid2x(region.clone(), {3, 4})));
}

TEST(HalfStep, EqualSamplesPassUnchanged) {
  EXPECT_EQ(grid_detail::HalfStep(0.1f, 0.1f, 0.1f, 0.1f), 0.1f);
  EXPECT_EQ(grid_detail::HalfStep(0.1, 0.1, 0.1, 0.1), 0.1);
  // Zeros of both signs are equal, and b comes back as it is.
  EXPECT_TRUE(std::signbit(grid_detail::HalfStep(0.0f, -0.0f, 0.0f, 0.0f)));
}

TEST(HalfStep, SumsInDoubleAndNarrowsOnce) {
  test::Random random;
  for (int i = 0; i < 1000; ++i) {
    const float a = random.Float(-1, 1), b = random.Float(-1, 1), c = random.Float(-1, 1), d = random.Float(-1, 1);
    ASSERT_EQ(grid_detail::HalfStep(a, b, c, d), static_cast<float>(HalfWay(a, b, c, d)));
  }
}

TEST(HalfStep, NotANumberGoesThroughTheFormula) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_TRUE(std::isnan(grid_detail::HalfStep(nan, nan, nan, nan)));
  EXPECT_TRUE(std::isnan(grid_detail::HalfStep(1.0f, 1.0f, 1.0f, nan)));
}

TEST(Reduce, TruncatesOddDimensions) {
  const cv::Mat image = (cv::Mat_<float>(3, 3) << 1, 2, 3, 4, 5, 6, 7, 8, 9);
  EXPECT_TRUE(test::SameBits(grid_detail::Reduce<float>(image), (cv::Mat_<float>(1, 1) << 1)));
}

struct Assertion {
  int line;
  const char* function;
  const char* expression;
};

void ExpectAssertion(const std::function<void()>& call, const Assertion& expected) {
  try {
    call();
    FAIL() << "no assertion failed; expected line " << expected.line;
  } catch (const cv::Exception& error) {
    EXPECT_EQ(error.code, cv::Error::StsAssert);
    EXPECT_EQ(error.err, expected.expression);
    EXPECT_EQ(error.func, expected.function);
    EXPECT_EQ(error.file, "src/common/GridAlignedResample.cpp");
    EXPECT_EQ(error.line, expected.line);
  }
}

// A header with any size, whose pixels nobody touches: the assertions look at the size alone.
cv::Mat Unbacked(int rows, int cols, int type) {
  static double sample = 0.0;
  cv::Mat header(1, 1, type, &sample);
  header.rows = rows;
  header.cols = cols;
  return header;
}

TEST(GridAlignedResampleAssertions, OnlyFloatImagesAreResampled) {
  const std::vector<int> sizes = {2, 2, 2};
  for (const cv::Mat& image :
       {cv::Mat(), cv::Mat(2, 2, CV_8UC3), cv::Mat(2, 2, CV_16UC1), cv::Mat(sizes, CV_32F, cv::Scalar(0))}) {
    ExpectAssertion([&] { static_cast<void>(UpsampleGridCubic2x(image)); }, {70, "UpsampleGridCubic2x", kFloatImage});
    ExpectAssertion([&] { static_cast<void>(DownsampleGrid2x(image, {1, 1})); }, {78, "DownsampleGrid2x", kFloatImage});
  }
}

TEST(GridAlignedResampleAssertions, ResultsMustBeCountableByInt) {
  constexpr int kMax = std::numeric_limits<int>::max();
  const Assertion tooLarge = {
      72, "UpsampleGridCubic2x",
      "source.rows <= std::numeric_limits<int>::max() / 2 && source.cols <= std::numeric_limits<int>::max() / (2 * "
      "source.channels())"};
  ExpectAssertion([] { static_cast<void>(UpsampleGridCubic2x(Unbacked(kMax / 2 + 1, 1, CV_32FC1))); }, tooLarge);
  ExpectAssertion([] { static_cast<void>(UpsampleGridCubic2x(Unbacked(1, kMax / 6 + 1, CV_32FC3))); }, tooLarge);
  ExpectAssertion(
      [] {
        static_cast<void>(DownsampleGrid2x(Unbacked(2, kMax / 3 + 1, CV_32FC3), {1, 1}));
      },
      {79, "DownsampleGrid2x", "source.cols <= std::numeric_limits<int>::max() / source.channels()"});
}

TEST(GridAlignedResampleAssertions, TheTargetIsExactlyHalf) {
  const Assertion notHalf = {80, "DownsampleGrid2x",
                             "source.cols % 2 == 0 && source.rows % 2 == 0 && target == cv::Size(source.cols / 2, "
                             "source.rows / 2)"};
  const auto reduce = [](int rows, int cols, cv::Size target) {
    return [=] { static_cast<void>(DownsampleGrid2x(cv::Mat::zeros(rows, cols, CV_32FC3), target)); };
  };
  ExpectAssertion(reduce(5, 4, {2, 2}), notHalf);
  ExpectAssertion(reduce(4, 5, {2, 2}), notHalf);
  ExpectAssertion(reduce(4, 6, {2, 3}), notHalf);
  ExpectAssertion(reduce(4, 6, {3, 1}), notHalf);
  EXPECT_NO_THROW(reduce(4, 6, {3, 2})());
}

}  // namespace
}  // namespace ulmora
