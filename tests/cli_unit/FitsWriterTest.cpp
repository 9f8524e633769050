#include "cli/FitsReader.h"
#include "cli/FitsWriter.h"
#include "tests/cli_unit/FitsTesting.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace ulmora::cli {
namespace {

using testing::HasSubstr;
using testing::Not;

class FitsWriting : public testing::Test {
 protected:
  test::FitsContent Write(const cv::Mat& image, const FitsMetadata* metadata,
                          FitsOutputRole role = FitsOutputRole::main, bool grayscale = false) {
    WriteFitsImage(path_, image, grayscale, metadata, role, spoken_.To());
    return test::ReadFits(path_);
  }
  std::string Refusal(const cv::Mat& image, const FitsMetadata* metadata, FitsOutputRole role = FitsOutputRole::main) {
    return test::ThrownText<std::invalid_argument>([&] { Write(image, metadata, role); });
  }
  /// Metadata of a linear float32 run over these source samples, one channel a row of `width`.
  static FitsMetadata Linear(std::vector<double> source, int width, FitsChannelLayout layout) {
    FitsMetadata metadata;
    metadata.linear = true;
    metadata.restoreForwardShadowSamples = false;
    metadata.channelLayout = layout;
    metadata.width = width;
    metadata.height = 1;
    metadata.physicalSamples = std::move(source);
    const std::size_t channels = layout == FitsChannelLayout::Mono ? 1 : 3;
    metadata.shadowThresholds.assign(channels, 0.125);
    metadata.constantChannels.assign(channels, false);
    return metadata;
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.Path("out.fits");
  test::Spoken spoken_;
};

TEST_F(FitsWriting, WithoutMetadataWritesPlainFloats) {
  const cv::Mat image(1, 2, CV_32FC3, cv::Scalar(0.25, 0.5, 0.75));
  const test::FitsContent content = Write(image, nullptr);
  EXPECT_EQ(content.bitpix, FLOAT_IMG);
  EXPECT_EQ(content.axes, (std::vector<long>{2, 1, 3}));
  EXPECT_EQ(content.physical, (std::vector<double>{0.25, 0.25, 0.5, 0.5, 0.75, 0.75}));
  EXPECT_TRUE(content.Cards("BSCALE").empty());
  EXPECT_TRUE(content.Cards("HISTORY").empty());
  EXPECT_EQ(content.Cards("CREATOR"), (std::vector<std::string>{"CREATOR = 'QuorvanThine CLI'"}));
  EXPECT_EQ(content.Cards("CHECKSUM").size(), 1U);
}

TEST_F(FitsWriting, OtherChannelCountsAreRefused) {
  for (const int channels : {2, 4}) {
    EXPECT_EQ(Refusal(cv::Mat(1, 1, CV_MAKETYPE(CV_32F, channels), cv::Scalar()), nullptr),
              "Unsupported number of FITS output channels: " + std::to_string(channels));
  }
}

TEST_F(FitsWriting, ChannelsFollowTheSourcesLayout) {
  FitsMetadata metadata;
  const cv::Mat gray(1, 2, CV_32FC1, cv::Scalar(0.5));
  const cv::Mat color(1, 2, CV_32FC3, cv::Scalar(0.25, 0.5, 0.75));
  EXPECT_EQ(Write(gray, &metadata).axes.size(), 2U);
  EXPECT_EQ(Write(color, &metadata, FitsOutputRole::main, true).axes.size(), 2U);
  metadata.channelLayout = FitsChannelLayout::PlaneFirst;
  EXPECT_EQ(Write(gray, &metadata).axes, (std::vector<long>{3, 2, 1}));
  EXPECT_EQ(Write(color, &metadata).physical, (std::vector<double>{0.25, 0.5, 0.75, 0.25, 0.5, 0.75}));
  metadata.channelLayout = FitsChannelLayout::PlaneLast;
  EXPECT_EQ(Write(gray, &metadata).axes, (std::vector<long>{2, 1, 3}));
}

TEST_F(FitsWriting, ANonContinuousImageIsWrittenWhole) {
  cv::Mat large(4, 5, CV_64FC1);
  for (int i = 0; i < 20; ++i) large.at<double>(i / 5, i % 5) = i;
  EXPECT_EQ(Write(large(cv::Rect(1, 1, 2, 2)), nullptr).physical, (std::vector<double>{6, 7, 11, 12}));
}

TEST_F(FitsWriting, DimensionlessFractionsDropTheSourcesScaling) {
  FitsMetadata metadata;
  metadata.bscale = 2.0;
  metadata.bzero = 10.0;
  metadata.hasBscale = metadata.hasBzero = true;
  metadata.headerCards = {"BUNIT   = 'adu     '"};
  const cv::Mat image(1, 2, CV_32FC1, cv::Scalar(0.5));
  const test::FitsContent content = Write(image, &metadata, FitsOutputRole::unscreen);
  EXPECT_EQ(content.physical, (std::vector<double>{0.5, 0.5}));
  ASSERT_EQ(content.Cards("BUNIT").size(), 1U);
  EXPECT_THAT(content.Cards("BUNIT")[0], HasSubstr("'1       '"));
  EXPECT_THAT(content.Cards("BUNIT")[0], HasSubstr("Dimensionless unscreen fraction"));
  EXPECT_THAT(spoken_.Text(),
              HasSubstr("Warning [output_fidelity]: FITS unscreen output is dimensionless [0,1], with identity "
                        "BSCALE/BZERO and BUNIT=1. Reconstruct using starless + unscreen*(fixed format white - "
                        "starless); see FITS HISTORY.\n"));
  EXPECT_THAT(spoken_.Text(), HasSubstr("role=unscreen fixed_white=1 BSCALE=1 BZERO=0 encoding_input=float64; "
                                        "dimensionless fraction\n"));
}

TEST_F(FitsWriting, AnIntegerFractionIsEncodedLikeAnyOther) {
  FitsMetadata metadata;
  metadata.bitpix = metadata.equivalentType = BYTE_IMG;
  metadata.normalizationScale = 1.0 / 255.0;
  metadata.fixedDivisor = 255.0;
  const test::FitsContent content =
      Write(cv::Mat(1, 1, CV_32FC1, cv::Scalar(0.2)), &metadata, FitsOutputRole::unscreen);
  EXPECT_EQ(content.physical, (std::vector<double>{51.0}));
  EXPECT_TRUE(content.Cards("BUNIT").empty());
  EXPECT_THAT(spoken_.Text(), Not(HasSubstr("output_fidelity")));
}

TEST_F(FitsWriting, ExtremaAreThoseOfTheQuantizedOutput) {
  FitsMetadata metadata;
  metadata.bitpix = metadata.equivalentType = SHORT_IMG;
  metadata.hasDatamax = true;
  const test::FitsContent content = Write((cv::Mat_<double>(1, 2) << 3.4, 7.6), &metadata);
  EXPECT_TRUE(content.Cards("DATAMIN").empty());
  ASSERT_EQ(content.Cards("DATAMAX").size(), 1U);
  EXPECT_THAT(content.Cards("DATAMAX")[0], HasSubstr(" 8."));
}

TEST_F(FitsWriting, HistoryOfALinearCubeInOrder) {
  FitsMetadata metadata = Linear({0.1, 0.2, 0.3}, 1, FitsChannelLayout::PlaneLast);
  metadata.upperClippedSamples = 4;
  const cv::Mat image(1, 1, CV_64FC3, cv::Scalar::all(0.5));
  const auto history = [&](FitsOutputRole role) {
    std::string text = Write(image, &metadata, role).History();
    // CFITSIO splits long texts over several cards, and blanks at the end of a card are lost.
    std::erase(text, '\n');
    return text;
  };
  const std::string main = history(FitsOutputRole::main);
  EXPECT_THAT(main, HasSubstr("fixed divisor=1 upper-clipped samples=4; no observed-rangerescaling."));
  EXPECT_LT(main.find("channel 1: 0.125"), main.find("channel 3: 0.125"));
  EXPECT_THAT(main, HasSubstr("Main image restored to source physical units."));
  EXPECT_THAT(history(FitsOutputRole::difference), HasSubstr("Difference stars: source units, no additive offset."));
  EXPECT_THAT(history(FitsOutputRole::unscreen), HasSubstr("Unscreen fraction: effective source=starless+fraction*"));
}

TEST_F(FitsWriting, LinearGeometryIsCheckedBeforeAnyFileIsTouched) {
  std::ofstream(path_) << "old";
  const FitsMetadata metadata = Linear({0.1, 0.2}, 2, FitsChannelLayout::Mono);
  EXPECT_EQ(Refusal(cv::Mat(1, 3, CV_64FC1, cv::Scalar()), &metadata),
            "Linear FITS output geometry differs from the source.");
  FitsMetadata bare = metadata;
  bare.shadowThresholds.clear();
  EXPECT_EQ(Refusal(cv::Mat(1, 2, CV_64FC1, cv::Scalar()), &bare),
            "Linear FITS output requires the actual MTF shadow thresholds.");
  std::string kept;
  std::ifstream(path_) >> kept;
  EXPECT_EQ(kept, "old");
}

TEST_F(FitsWriting, ConstantChannelsComeBackFromTheSource) {
  FitsMetadata metadata = Linear({0.3, 1.7}, 2, FitsChannelLayout::Mono);
  metadata.constantChannels = {true};
  EXPECT_THAT(Write(cv::Mat(1, 2, CV_64FC1, cv::Scalar(0.9)), &metadata).physical,
              testing::ElementsAre(static_cast<double>(0.3F), 1.0));
}

TEST_F(FitsWriting, UndoableScalingIsRefusedWithItsOwnSentenceOrTheLibrarys) {
  FitsMetadata metadata;
  metadata.bitpix = metadata.equivalentType = SHORT_IMG;
  metadata.bscale = 0.0;
  EXPECT_THAT(Refusal(cv::Mat(1, 1, CV_64FC1, cv::Scalar()), &metadata),
              testing::StartsWith("Applying source scaling failed for FITS image " + path_ + ": "));
  metadata.bscale = 1.0;
  metadata.bzero = std::numeric_limits<double>::infinity();
  EXPECT_EQ(Refusal(cv::Mat(1, 1, CV_64FC1, cv::Scalar()), &metadata),
            "FITS integer output requires finite, nonzero source scaling.");
}

TEST_F(FitsWriting, WhatTheWriterWritesIsWhatTheProjectionSays) {
  std::vector<double> source;
  for (int i = 0; i < 64; ++i) source.push_back(i * 100.0);
  const std::string input = folder_.Path("in.fits");
  test::WriteFits(input, USHORT_IMG, {8, 8}, source);
  FitsImage read = ReadFitsImageWithMetadata(input, false, spoken_.To());
  cv::Mat image;
  read.image.convertTo(image, CV_64F, 1.3, 0.01);
  const test::FitsContent content = Write(image, &read.metadata);
  EXPECT_EQ(content.axes, (std::vector<long>{8, 8}));
  double largest = 0.0;
  for (std::size_t i = 0; i < 64; ++i) {
    const double wanted = std::round(image.at<double>(static_cast<int>(i / 8), static_cast<int>(i % 8)) * 65535.0);
    largest = std::max(largest, std::abs(content.physical[i] - std::min(wanted, 65535.0)));
  }
  EXPECT_LE(largest, 0.0);
}

}  // namespace
}  // namespace ulmora::cli
