#include "cli/ImageStatistics.h"
#include "tests/support/Random.h"

#include <gtest/gtest.h>

namespace ulmora::cli {
namespace {

/// The same by the plain road: every sample in double precision, one after the other.
ImageRanges Naive(const cv::Mat& image, double scale) {
  cv::Mat wide;
  image.convertTo(wide, CV_64F);
  ImageRanges ranges;
  ranges.channels.resize(static_cast<std::size_t>(image.channels()));
  for (int y = 0; y < wide.rows; ++y) {
    for (int i = 0; i < wide.cols * wide.channels(); ++i) {
      ranges.overall.Add(wide.ptr<double>(y)[i], scale);
      ranges.channels[static_cast<std::size_t>(i % wide.channels())].Add(wide.ptr<double>(y)[i], scale);
    }
  }
  return ranges;
}

void ExpectSame(const cv::Mat& image, double scale) {
  const ImageRanges expected = Naive(image, scale);
  const ImageRanges actual = MeasureRanges(image, scale);
  EXPECT_EQ(actual.overall.Describe(scale), expected.overall.Describe(scale));
  ASSERT_EQ(actual.channels.size(), expected.channels.size());
  for (std::size_t c = 0; c < actual.channels.size(); ++c) {
    EXPECT_EQ(actual.channels[c].Describe(scale), expected.channels[c].Describe(scale)) << "channel " << c;
  }
}

TEST(ImageStatistics, FastRoadsEqualThePlainOne) {
  test::Random random;
  for (const int depth : {CV_8U, CV_16U, CV_8S, CV_16S, CV_32S, CV_32F, CV_64F}) {
    for (const int channels : {1, 2, 3, 4, 5}) {
      for (const int cols : {1, 2, 63, 64, 65, 200}) {
        cv::Mat image(random.Int(1, 5), cols, CV_MAKETYPE(depth, channels));
        cv::theRNG().state = random.engine()();
        const double high = depth == CV_8U ? 200 : depth == CV_8S ? 100 : depth == CV_16U ? 60000 : 30000;
        cv::Mat samples = image.reshape(1);
        cv::randu(samples, depth == CV_8U || depth == CV_16U ? 3 : -high, high);
        ExpectSame(image, depth == CV_8U ? 255.0 : depth == CV_16U ? 65535.0 : 1.0);
      }
    }
  }
}

TEST(ImageStatistics, FindsASingleExtremeSampleWhereverItStands) {
  for (int at = 0; at < 3 * 130; ++at) {
    cv::Mat image(1, 130, CV_16UC3, cv::Scalar::all(1000));
    image.ptr<std::uint16_t>()[at] = static_cast<std::uint16_t>(at % 2 == 0 ? 65535 : 0);
    ExpectSame(image, 65535.0);
  }
}

TEST(ImageStatistics, LooksAtNothingOutsideARegion) {
  cv::Mat image(20, 300, CV_8UC3, cv::Scalar::all(255));
  image(cv::Rect(10, 5, 250, 10)).setTo(cv::Scalar(1, 2, 3));
  ExpectSame(image(cv::Rect(10, 5, 250, 10)), 255.0);
}

TEST(ImageStatistics, CountsSamplesOutsideTheRangeOfASmallerScale) {
  cv::Mat image = (cv::Mat_<std::uint8_t>(1, 3) << 0, 100, 200);
  EXPECT_EQ(MeasureRanges(image, 100.0).overall.aboveOne, 1U);
}

}  // namespace
}  // namespace ulmora::cli
