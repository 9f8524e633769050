#include "cli/FitsEncoding.h"
#include "tests/support/Compare.h"

#include <fitsio.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

namespace ulmora::cli {
namespace {

FitsMetadata Unsigned16() {
  FitsMetadata metadata;
  metadata.bitpix = SHORT_IMG;
  metadata.equivalentType = USHORT_IMG;
  metadata.bzero = 32768.0;
  metadata.normalizationScale = 1.0 / 65535.0;
  metadata.fixedDivisor = 65535.0;
  return metadata;
}

/// Metadata of a linear float run of one channel with these source samples.
FitsMetadata LinearFloat(std::vector<double> source, int bitpix = FLOAT_IMG) {
  FitsMetadata metadata;
  metadata.bitpix = metadata.equivalentType = bitpix;
  metadata.linear = true;
  metadata.restoreForwardShadowSamples = false;
  metadata.width = static_cast<int>(source.size());
  metadata.height = 1;
  metadata.physicalSamples = std::move(source);
  metadata.shadowThresholds = {0.1};
  metadata.constantChannels = {false};
  return metadata;
}

double Stored(double value, const FitsMetadata& metadata) {
  std::uint64_t clipped = 0;
  return IntegerStorageSample(value, metadata, clipped);
}

TEST(IntegerStorageSample, RoundsHalvesAwayFromZero) {
  FitsMetadata metadata;
  metadata.bitpix = metadata.equivalentType = SHORT_IMG;
  EXPECT_EQ(Stored(100.5, metadata), 101.0);
  EXPECT_EQ(Stored(-100.5, metadata), -101.0);
  EXPECT_EQ(Stored(100.49, metadata), 100.0);
}

TEST(IntegerStorageSample, LimitsToTheSampleTypeAndCounts) {
  const FitsMetadata metadata = Unsigned16();
  std::uint64_t clipped = 0;
  EXPECT_EQ(IntegerStorageSample(70000.0, metadata, clipped), 32767.0);
  EXPECT_EQ(IntegerStorageSample(-1.0, metadata, clipped), -32768.0);
  EXPECT_EQ(IntegerStorageSample(65535.0, metadata, clipped), 32767.0);
  EXPECT_EQ(clipped, 2U);
}

TEST(IntegerStorageSample, LimitsOfEachType) {
  const auto limits = [](int type) {
    FitsMetadata metadata;
    metadata.bitpix = SHORT_IMG;
    metadata.equivalentType = type;
    return std::pair(Stored(-1e300, metadata), Stored(1e300, metadata));
  };
  EXPECT_EQ(limits(BYTE_IMG), std::pair(0.0, 255.0));
  EXPECT_EQ(limits(SBYTE_IMG), std::pair(-128.0, 127.0));
  EXPECT_EQ(limits(SHORT_IMG), std::pair(-32768.0, 32767.0));
  EXPECT_EQ(limits(USHORT_IMG), std::pair(0.0, 65535.0));
  EXPECT_EQ(limits(LONG_IMG), std::pair(-2147483648.0, 2147483647.0));
  EXPECT_EQ(limits(ULONG_IMG), std::pair(0.0, 4294967295.0));
  EXPECT_EQ(limits(LONGLONG_IMG), std::pair(-1e300, 1e300));
  EXPECT_EQ(limits(ULONGLONG_IMG), std::pair(-1e300, 1e300));
}

TEST(IntegerStorageSample, RefusesScalingThatCannotBeUndone) {
  for (const auto& [bscale, bzero] :
       {std::pair(0.0, 0.0), std::pair(double{NAN}, 0.0), std::pair(1.0, double{INFINITY})}) {
    FitsMetadata metadata = Unsigned16();
    metadata.bscale = bscale;
    metadata.bzero = bzero;
    EXPECT_EQ(test::ThrownText<std::invalid_argument>([&] { (void)Stored(1.0, metadata); }),
              "FITS integer output requires finite, nonzero source scaling.");
  }
}

TEST(IntegerStorageSample, RefusesWhatCannotBeEncoded) {
  FitsMetadata metadata;
  metadata.bitpix = metadata.equivalentType = LONGLONG_IMG;
  metadata.bscale = 1e-300;
  const char* text = "Processed FITS value cannot be encoded in source storage units.";
  EXPECT_EQ(test::ThrownText<std::invalid_argument>([&] { (void)Stored(1e300, metadata); }), text);
  EXPECT_EQ(test::ThrownText<std::invalid_argument>([&] { (void)Stored(NAN, Unsigned16()); }), text);
}

TEST(LinearPhysicalSample, ScalesByTheFixedDivisor) {
  FitsMetadata metadata = LinearFloat({10.0});
  metadata.fixedDivisor = 100.0;
  for (const FitsOutputRole role : {FitsOutputRole::main, FitsOutputRole::difference}) {
    EXPECT_EQ(LinearPhysicalSample(0.5, metadata, role, 0, 0), 50.0);
  }
  EXPECT_EQ(LinearPhysicalSample(1.5, metadata, FitsOutputRole::unscreen, 0, 0), 1.0);
  EXPECT_EQ(LinearPhysicalSample(-0.5, metadata, FitsOutputRole::unscreen, 0, 0), 0.0);
  metadata.bitpix = SHORT_IMG;
  EXPECT_EQ(LinearPhysicalSample(1.5, metadata, FitsOutputRole::unscreen, 0, 0), 150.0);
}

TEST(LinearPhysicalSample, ConstantChannelsTakeTheSourceInTheMainImageAlone) {
  FitsMetadata metadata = LinearFloat({0.3, 1.7});
  metadata.constantChannels = {true};
  EXPECT_EQ(LinearPhysicalSample(0.9, metadata, FitsOutputRole::main, 0, 0), 0.3);
  EXPECT_EQ(LinearPhysicalSample(0.9, metadata, FitsOutputRole::main, 0, 1), 1.0);
  EXPECT_EQ(LinearPhysicalSample(0.9, metadata, FitsOutputRole::difference, 0, 0), 0.0);
  EXPECT_EQ(LinearPhysicalSample(0.9, metadata, FitsOutputRole::unscreen, 0, 0), 0.0);
}

TEST(LinearPhysicalSample, ShadowsAreRestoredOnlyWhereAskedFor) {
  FitsMetadata metadata = LinearFloat({0.1, 0.11});
  EXPECT_EQ(LinearPhysicalSample(0.5, metadata, FitsOutputRole::main, 0, 0), 0.5);
  metadata.restoreForwardShadowSamples = true;
  EXPECT_EQ(LinearPhysicalSample(0.5, metadata, FitsOutputRole::main, 0, 0), 0.1);
  EXPECT_EQ(LinearPhysicalSample(0.5, metadata, FitsOutputRole::main, 0, 1), 0.5);
}

TEST(LinearPhysicalSample, RefusesWhatTheFormatCannotHold) {
  const char* tooLarge = "Processed FITS physical value exceeds the source floating-point format.";
  EXPECT_EQ(test::ThrownText<std::invalid_argument>(
                [] { (void)LinearPhysicalSample(NAN, LinearFloat({0.5}), FitsOutputRole::main, 0, 0); }),
            "Processed FITS output contains a non-finite sample.");
  EXPECT_EQ(test::ThrownText<std::invalid_argument>(
                [] { (void)LinearPhysicalSample(1e39, LinearFloat({0.5}), FitsOutputRole::main, 0, 0); }),
            tooLarge);
  EXPECT_EQ(LinearPhysicalSample(1e39, LinearFloat({0.5}, DOUBLE_IMG), FitsOutputRole::main, 0, 0), 1e39);
  FitsMetadata metadata = LinearFloat({0.5}, DOUBLE_IMG);
  metadata.fixedDivisor = 10.0;
  EXPECT_EQ(test::ThrownText<std::invalid_argument>(
                [&] { (void)LinearPhysicalSample(1e308, metadata, FitsOutputRole::main, 0, 0); }),
            tooLarge);
}

TEST(LinearPhysicalSample, BadIndicesAreRangeErrors) {
  FitsMetadata metadata = LinearFloat({0.5});
  EXPECT_THROW((void)LinearPhysicalSample(0.5, metadata, FitsOutputRole::main, 0, 1), std::out_of_range);
  EXPECT_THROW((void)LinearPhysicalSample(0.5, metadata, FitsOutputRole::main, 1, 0), std::out_of_range);
  metadata.constantChannels.clear();
  metadata.restoreForwardShadowSamples = true;
  EXPECT_THROW((void)LinearPhysicalSample(0.5, metadata, FitsOutputRole::main, 1, 0), std::out_of_range);
}

TEST(ProjectFitsMainOutput, WithoutMetadataIsFloat32) {
  const cv::Mat image = (cv::Mat_<double>(1, 2) << 0.1, 7.0);
  const cv::Mat projected = ProjectFitsMainOutput(image, nullptr);
  EXPECT_EQ(projected.at<double>(0), static_cast<double>(0.1F));
  EXPECT_EQ(projected.at<double>(1), 7.0);
  EXPECT_EQ(image.at<double>(0), 0.1);
}

TEST(ProjectFitsMainOutput, QuantizesAndClipsAsTheWriterDoes) {
  const FitsMetadata metadata = Unsigned16();
  const cv::Mat image = (cv::Mat_<double>(1, 3) << 100.4 / 65535.0, 1.5, -0.5);
  const cv::Mat projected = ProjectFitsMainOutput(image, &metadata);
  EXPECT_DOUBLE_EQ(projected.at<double>(0), 100.0 / 65535.0);
  EXPECT_EQ(projected.at<double>(1), 65535.0 * metadata.normalizationScale);
  EXPECT_EQ(projected.at<double>(2), 0.0);
}

TEST(ProjectFitsMainOutput, LinearRestoresSourcesByTheirFileOrder) {
  FitsMetadata metadata = LinearFloat({0.1, 0.2, 0.3, 0.4, 0.5, 0.6}, DOUBLE_IMG);
  metadata.width = 2;
  metadata.shadowThresholds = {0.0, 0.0, 0.0};
  metadata.constantChannels = {true, true, true};
  const cv::Mat image(1, 2, CV_64FC3, cv::Scalar::all(0.9));
  metadata.channelLayout = FitsChannelLayout::PlaneLast;
  EXPECT_EQ(ProjectFitsMainOutput(image, &metadata).at<cv::Vec3d>(0, 1), cv::Vec3d(0.2, 0.4, 0.6));
  metadata.channelLayout = FitsChannelLayout::PlaneFirst;
  EXPECT_EQ(ProjectFitsMainOutput(image, &metadata).at<cv::Vec3d>(0, 1), cv::Vec3d(0.4, 0.5, 0.6));
  EXPECT_EQ(test::ThrownText<std::invalid_argument>(
                [&] { (void)ProjectFitsMainOutput(cv::Mat(2, 2, CV_64FC3, cv::Scalar()), &metadata); }),
            "Linear FITS output geometry differs from the source.");
}

}  // namespace
}  // namespace ulmora::cli
