#include "cli/FitsPath.h"
#include "cli/FitsReader.h"
#include "tests/cli_unit/FitsTesting.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

namespace ulmora::cli {
namespace {

using testing::HasSubstr;

TEST(IsFitsPath, GoesByTheEndingInAnyCase) {
  for (const char* path : {"a.fit", "a.FITS", "a.fts", "a.Fits.GZ", "x/y.fit.gz", ".fts.gz", "a.fz.fit"}) {
    EXPECT_TRUE(IsFitsPath(path)) << path;
  }
  for (const char* path : {"afits", "a.fits.bz2", "a.fz", "fits", "", "a.fits.gzip", "a.fit "}) {
    EXPECT_FALSE(IsFitsPath(path)) << path;
  }
}

class FitsReading : public testing::Test {
 protected:
  std::string Write(int bitpix, std::vector<long> axes, std::vector<double> samples,
                    const std::vector<std::string>& cards = {}) {
    const std::string path = folder_.Path("in.fits");
    test::WriteFits(path, bitpix, std::move(axes), std::move(samples), cards);
    return path;
  }
  FitsImage Read(const std::string& path, bool linear = false) {
    return ReadFitsImageWithMetadata(path, linear, spoken_.To());
  }
  static std::vector<double> Counting(std::size_t count, double scale = 1.0) {
    std::vector<double> samples(count);
    for (std::size_t i = 0; i < count; ++i) samples[i] = static_cast<double>(i) * scale;
    return samples;
  }

  test::TemporaryFolder folder_;
  test::Spoken spoken_;
};

TEST_F(FitsReading, WhiteOfUnsigned16NormalizesToExactlyOne) {
  const FitsImage result = Read(Write(USHORT_IMG, {2, 1}, {65535.0, 0.0}));
  EXPECT_EQ(result.image.type(), CV_32FC1);
  EXPECT_EQ(result.image.at<float>(0), 1.0F);
  EXPECT_EQ(result.metadata.bitpix, SHORT_IMG);
  EXPECT_EQ(result.metadata.equivalentType, USHORT_IMG);
  EXPECT_EQ(result.metadata.fixedDivisor, 65535.0);
  EXPECT_TRUE(result.metadata.hasBzero);
  EXPECT_EQ(result.metadata.bzero, 32768.0);
  EXPECT_FALSE(result.metadata.linear);
  EXPECT_TRUE(result.metadata.physicalSamples.empty());
  EXPECT_TRUE(result.metadata.restoreForwardShadowSamples);
}

TEST_F(FitsReading, SignedSamplesKeepTheirSign) {
  const FitsImage result = Read(Write(SHORT_IMG, {2, 1}, {-32768.0, 32767.0}));
  EXPECT_FLOAT_EQ(result.image.at<float>(0), -1.0000305F);
  EXPECT_EQ(result.image.at<float>(1), 1.0F);
}

TEST_F(FitsReading, SixtyFourBitIntegersShareOneDivisor) {
  const FitsImage result = Read(Write(LONGLONG_IMG, {2, 1}, {0x1p62, 0.0}));
  EXPECT_EQ(result.image.at<float>(0), 0.5F);
  EXPECT_EQ(result.metadata.fixedDivisor, 0x1p63);
}

TEST_F(FitsReading, ACubeOfThreePlanesIsPlaneLast) {
  const FitsImage result = Read(Write(BYTE_IMG, {3, 10, 3}, Counting(90)));
  EXPECT_EQ(result.metadata.channelLayout, FitsChannelLayout::PlaneLast);
  EXPECT_EQ(result.image.size(), cv::Size(3, 10));
  EXPECT_EQ(result.image.at<cv::Vec3f>(1, 2) * 255.0F, cv::Vec3f(5, 35, 65));
}

TEST_F(FitsReading, ACubeOfTriplesIsPlaneFirst) {
  const FitsImage result = Read(Write(BYTE_IMG, {3, 10, 4}, Counting(120)));
  EXPECT_EQ(result.metadata.channelLayout, FitsChannelLayout::PlaneFirst);
  EXPECT_EQ(result.image.size(), cv::Size(10, 4));
  EXPECT_EQ(result.image.at<cv::Vec3f>(1, 2) * 255.0F, cv::Vec3f(36, 37, 38));
  EXPECT_EQ(result.metadata.width, 10);
  EXPECT_EQ(result.metadata.height, 4);
}

TEST_F(FitsReading, LinearKeepsSamplesAndClipsAboveAlone) {
  const std::string path = Write(DOUBLE_IMG, {4, 1}, {-0.5, 0.25, 1.0, 3.0});
  const FitsImage result = Read(path, true);
  EXPECT_EQ(result.image.type(), CV_64FC1);
  EXPECT_EQ(std::vector<double>(result.image.begin<double>(), result.image.end<double>()),
            (std::vector<double>{-0.5, 0.25, 1.0, 1.0}));
  EXPECT_EQ(result.metadata.physicalSamples, (std::vector<double>{-0.5, 0.25, 1.0, 3.0}));
  EXPECT_EQ(result.metadata.upperClippedSamples, 1U);
  EXPECT_THAT(spoken_.Text(), HasSubstr("Info [input_prepared]: upper-clipped=1; pre-MTF range=[-0.5,1]; negatives "
                                        "retained until MTF\n"));
  EXPECT_EQ(test::ThrownText<std::invalid_argument>([&] { (void)Read(path); }),
            "Floating-point FITS input samples must be normalized to [0,1]. Observed finite range: [-0.5, 3]. "
            "Normalize the image before invoking the CLI; header extrema are not used to rescale it.");
}

TEST_F(FitsReading, FloatsBetweenZeroAndOnePass) {
  const FitsImage result = Read(Write(FLOAT_IMG, {2, 1}, {0.0, 1.0}));
  EXPECT_EQ(result.image.at<float>(1), 1.0F);
  EXPECT_EQ(result.metadata.fixedDivisor, 1.0);
}

TEST_F(FitsReading, ASampleBeyondFloatBecomesZero) {
  const std::string path = Write(SHORT_IMG, {2, 1}, {1.0, 2.0}, {"BSCALE  =               1.0E50"});
  const FitsImage result = Read(path);
  EXPECT_EQ(result.image.at<float>(0), 0.0F);
  EXPECT_EQ(result.metadata.bscale, 1e50);
}

TEST_F(FitsReading, AllNaNIsRefusedAsUndefined) {
  const std::string path = Write(FLOAT_IMG, {2, 1}, {NAN, NAN});
  EXPECT_EQ(test::ThrownText<std::invalid_argument>([&] { (void)Read(path); }),
            "FITS input contains 2 non-finite/undefined source sample(s); repair the image upstream: " + path);
  EXPECT_THAT(spoken_.Text(), HasSubstr("physical_range=unavailable"));
  EXPECT_THAT(spoken_.Text(), HasSubstr("comparison=unavailable\n"));
}

TEST_F(FitsReading, PlainReadIsQuietAndGivesTheImage) {
  const std::string path = Write(BYTE_IMG, {2, 1}, {255.0, 51.0});
  testing::internal::CaptureStderr();
  const cv::Mat image = ReadFitsImage(path);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(image.at<float>(0), 1.0F);
  EXPECT_FLOAT_EQ(image.at<float>(1), 0.2F);
}

TEST_F(FitsReading, AMissingFileNamesStageAndPath) {
  const std::string text = test::ThrownText<std::invalid_argument>([&] { (void)Read("/nowhere/x.fits"); });
  EXPECT_EQ(text, "Opening failed for FITS image /nowhere/x.fits: could not open the named file");
}

}  // namespace
}  // namespace ulmora::cli
