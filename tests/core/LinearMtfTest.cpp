#include "core/LinearMtf.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>

namespace ulmora::core {
namespace {

using test::ThrownText;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr float kFloatNaN = std::numeric_limits<float>::quiet_NaN();

template <typename Call>
std::string Refusal(Call&& call) {
  return ThrownText<std::invalid_argument>(std::forward<Call>(call));
}

TEST(MidtonesTransfer, GoesThroughItsThreePoints) {
  for (const double m : {0.0, 0.01, 0.25, 0.5, 0.75, 1.0, -3.0, 7.0}) {
    EXPECT_EQ(MidtonesTransfer(m, 0.0), 0.0);
    EXPECT_EQ(MidtonesTransfer(m, 1.0), 1.0);
    EXPECT_EQ(InverseMidtonesTransfer(m, 0.0), 0.0);
    EXPECT_EQ(InverseMidtonesTransfer(m, 1.0), 1.0);
  }
  EXPECT_EQ(MidtonesTransfer(0.25, 0.25), 0.5);
  EXPECT_EQ(InverseMidtonesTransfer(0.25, 0.5), 0.25);
  EXPECT_DOUBLE_EQ(MidtonesTransfer(0.8, 0.8), 0.5);
}

TEST(MidtonesTransfer, IsTheIdentityAtOneHalf) {
  for (const double x : {1e-300, 0.1, 0.3, 0.5, 0.9, 1.0 - 1e-16}) {
    EXPECT_DOUBLE_EQ(MidtonesTransfer(0.5, x), x);
    EXPECT_DOUBLE_EQ(InverseMidtonesTransfer(0.5, x), x);
  }
}

TEST(MidtonesTransfer, ClampsOutsideTheUnitRange) {
  for (const double x : {-0.0, -1e-300, -5.0, -kInfinity}) {
    EXPECT_EQ(MidtonesTransfer(0.3, x), 0.0);
    EXPECT_FALSE(std::signbit(MidtonesTransfer(0.3, x)));
    EXPECT_EQ(InverseMidtonesTransfer(0.3, x), 0.0);
  }
  for (const double x : {1.0, 1.0 + 1e-15, 5.0, kInfinity}) {
    EXPECT_EQ(MidtonesTransfer(0.3, x), 1.0);
    EXPECT_EQ(InverseMidtonesTransfer(0.3, x), 1.0);
  }
}

TEST(MidtonesTransfer, TakesNaNForBlackAndItsInverseDoesNot) {
  EXPECT_EQ(MidtonesTransfer(0.3, kNaN), 0.0);
  EXPECT_TRUE(std::isnan(InverseMidtonesTransfer(0.3, kNaN)));
}

TEST(MidtonesTransfer, FollowsTheFormulaAtTheEndsOfTheBalance) {
  EXPECT_EQ(MidtonesTransfer(0.0, 0.5), 1.0);
  EXPECT_EQ(MidtonesTransfer(1.0, 0.5), 0.0);
}

TEST(MidtonesTransfer, SolvesForItsBalance) {
  for (const double target : {0.1, 0.25, 0.6}) {
    for (const double x : {0.001, 0.0056, 0.3, 0.9}) {
      EXPECT_NEAR(MidtonesTransfer(MidtonesTransfer(target, x), x), target, 1e-14);
    }
  }
}

TEST(MidtonesTransfer, IsUndoneByItsInverse) {
  for (const double m : {1e-6, 0.0166139241, 0.25, 0.5, 0.9, 1 - 1e-6}) {
    double last = 0.0;
    for (double x = 0.001; x < 1.0; x += 0.001) {
      const double y = MidtonesTransfer(m, x);
      EXPECT_GT(y, last);
      last = y;
      EXPECT_NEAR(InverseMidtonesTransfer(m, y), x, 1e-9);
      EXPECT_NEAR(InverseMidtonesTransfer(m, x), MidtonesTransfer(1.0 - m, x), 1e-9);
    }
  }
}

TEST(InverseMidtonesSample, IsWhatTheInverseForwardsTo) {
  for (const double m : {0.0, 0.1, 0.7, 1.0}) {
    for (const double y : {-1.0, 0.2, 0.5, 2.0}) {
      const double sample = ulmora::InverseMidtonesSample(m, y);
      EXPECT_EQ(InverseMidtonesTransfer(m, y), sample);
    }
  }
}

TEST(LinearMtfChannel, DefaultsToTheIdentity) {
  const LinearMtfChannel channel;
  EXPECT_EQ(channel.median, 0.0);
  EXPECT_EQ(channel.normalizedMad, 0.0);
  EXPECT_EQ(channel.shadows, 0.0);
  EXPECT_EQ(channel.midtones, 0.5);
}

TEST(ComputeLinearMtf, TakesTheMedianBetweenTheMiddleSamplesWhateverTheirOrder) {
  std::vector<float> samples = {1, 2, 3, 4};
  do {
    const cv::Mat image(2, 2, CV_32FC1, samples.data());
    const LinearMtfChannel channel = ComputeLinearMtf(image, -2.8, 0.25).at(0);
    EXPECT_EQ(channel.median, 2.5);
    EXPECT_EQ(channel.normalizedMad, 1.0 * 1.4826);
  } while (std::next_permutation(samples.begin(), samples.end()));
}

TEST(ComputeLinearMtf, TakesTheMiddleSampleOfAnOddNumber) {
  const cv::Mat image = (cv::Mat_<float>(1, 5) << 0.5F, 0.1F, 0.9F, 0.2F, 0.3F);
  const LinearMtfChannel channel = ComputeLinearMtf(image, -2.8, 0.25).at(0);
  EXPECT_EQ(channel.median, double{0.3F});
  // The deviations are stored in single precision.
  EXPECT_EQ(channel.normalizedMad, double{static_cast<float>(double{0.5F} - double{0.3F})} * 1.4826);
}

TEST(ComputeLinearMtf, MatchesTheWorkedExample) {
  // Deviations of half the samples are 0.002 / 1.4826, so the normalized MAD is 0.002 within single precision.
  const auto spread = static_cast<float>(0.002 / 1.4826);
  const cv::Mat image =
      (cv::Mat_<float>(1, 5) << 0.01F - spread, 0.01F + spread, 0.01F, 0.01F - spread, 0.01F + spread);
  const LinearMtfChannel channel = ComputeLinearMtf(image, -2.8, 0.25).at(0);
  EXPECT_NEAR(channel.median, 0.01, 1e-9);
  EXPECT_NEAR(channel.normalizedMad, 0.002, 2e-9);
  EXPECT_NEAR(channel.shadows, 0.0044, 1e-8);
  EXPECT_NEAR(channel.midtones, 0.0166139241, 5e-8);
  EXPECT_NEAR(MidtonesTransfer(channel.midtones, channel.median - channel.shadows), 0.25, 1e-12);
}

TEST(ComputeLinearMtf, TreatsEachChannelByItself) {
  test::Random random;
  const cv::Mat image = test::RandomImage(random, 31, 17, CV_32FC3, 0.0, 1.0);
  const auto channels = ComputeLinearMtf(image, -1.5, 0.3);
  ASSERT_EQ(channels.size(), 3u);
  for (int c = 0; c < 3; ++c) {
    cv::Mat plane;
    cv::extractChannel(image, plane, c);
    const LinearMtfChannel alone = ComputeLinearMtf(plane, -1.5, 0.3).at(0);
    const LinearMtfChannel& together = channels[static_cast<std::size_t>(c)];
    EXPECT_EQ(alone.median, together.median);
    EXPECT_EQ(alone.normalizedMad, together.normalizedMad);
    EXPECT_EQ(alone.shadows, together.shadows);
    EXPECT_EQ(alone.midtones, together.midtones);
  }
}

TEST(ComputeLinearMtf, AgreesWithSortingOnRandomImages) {
  test::Random random;
  for (int round = 0; round < 50; ++round) {
    const cv::Mat image = test::RandomImage(random, random.Int(1, 9), random.Int(1, 9), CV_32FC1, 0.0, 1.0);
    std::vector<float> sorted(image.begin<float>(), image.end<float>());
    std::sort(sorted.begin(), sorted.end());
    const std::size_t n = sorted.size();
    const double median = n % 2 == 1 ? sorted[n / 2] : (double{sorted[n / 2 - 1]} + double{sorted[n / 2]}) / 2.0;
    for (float& sample : sorted) sample = static_cast<float>(std::abs(double{sample} - median));
    std::sort(sorted.begin(), sorted.end());
    const double mad = n % 2 == 1 ? sorted[n / 2] : (double{sorted[n / 2 - 1]} + double{sorted[n / 2]}) / 2.0;
    const LinearMtfChannel channel = ComputeLinearMtf(image, -2.8, 0.25).at(0);
    EXPECT_EQ(channel.median, median);
    EXPECT_EQ(channel.normalizedMad, mad * 1.4826);
  }
}

TEST(ComputeLinearMtf, ReadsRegionsOfLargerImages) {
  cv::Mat image(8, 8, CV_32FC1, cv::Scalar(9.0));
  image(cv::Rect(2, 3, 4, 2)).setTo(0.5);
  EXPECT_EQ(ComputeLinearMtf(image(cv::Rect(2, 3, 4, 2)), -2.8, 0.25).at(0).median, 0.5);
}

TEST(ComputeLinearMtf, GivesAConstantChannelNoSpreadAndNoShadows) {
  const cv::Mat image(4, 4, CV_32FC1, cv::Scalar(0.125));
  const LinearMtfChannel channel = ComputeLinearMtf(image, -2.8, 0.25).at(0);
  EXPECT_EQ(channel.median, 0.125);
  EXPECT_EQ(channel.normalizedMad, 0.0);
  EXPECT_EQ(channel.shadows, 0.0);
  EXPECT_EQ(channel.midtones, MidtonesTransfer(0.25, 0.125));
}

TEST(ComputeLinearMtf, AcceptsAMedianOfZero) {
  const cv::Mat image = (cv::Mat_<float>(1, 5) << 0, 0, 0, 0.5F, 0.7F);
  const LinearMtfChannel channel = ComputeLinearMtf(image, -2.8, 0.25).at(0);
  EXPECT_EQ(channel.median, 0.0);
  EXPECT_EQ(channel.midtones, 0.0);
}

TEST(ComputeLinearMtf, ClampsShadows) {
  const cv::Mat dark = (cv::Mat_<float>(1, 5) << -0.5F, -0.3F, 0.001F, 0.3F, 0.5F);
  EXPECT_EQ(ComputeLinearMtf(dark, -2.8, 0.25).at(0).shadows, 0.0);
  const cv::Mat bright = (cv::Mat_<float>(1, 5) << 4.9F, 4.95F, 5.0F, 5.05F, 5.1F);
  EXPECT_EQ(ComputeLinearMtf(bright, -2.8, 0.25).at(0).shadows, 1.0);
}

TEST(ComputeLinearMtf, RefusesOtherImages) {
  const std::string type = "Linear MTF requires a float32 grayscale or RGB image.";
  const auto refusal = [](const cv::Mat& image) {
    return Refusal([&] { static_cast<void>(ComputeLinearMtf(image, -2.8, 0.25)); });
  };
  EXPECT_EQ(refusal(cv::Mat()), "Cannot apply linear MTF to an empty image.");
  EXPECT_EQ(refusal(cv::Mat(2, 2, CV_64FC1, cv::Scalar::all(0))), type);
  EXPECT_EQ(refusal(cv::Mat(2, 2, CV_16UC3, cv::Scalar::all(0))), type);
  EXPECT_EQ(refusal(cv::Mat(2, 2, CV_32FC2, cv::Scalar::all(0))), type);
  EXPECT_EQ(refusal(cv::Mat(2, 2, CV_32FC4, cv::Scalar::all(0))), type);
}

TEST(ComputeLinearMtf, RefusesOtherNumbersTargetFirst) {
  const cv::Mat image(2, 2, CV_32FC1, cv::Scalar(0.5));
  const auto refusal = [&](double shadows, double target) {
    return Refusal([&] { static_cast<void>(ComputeLinearMtf(image, shadows, target)); });
  };
  for (const double target : {0.0, 1.0, -0.1, 1.5, kNaN, kInfinity}) {
    EXPECT_EQ(refusal(5.0, target), "Target background must be finite and strictly between 0 and 1.");
  }
  for (const double shadows : {0.0, -0.0, 1.0, kNaN, -kInfinity, kInfinity}) {
    EXPECT_EQ(refusal(shadows, 0.25), "Shadows clipping must be a finite negative normalized-MAD multiplier.");
  }
}

const LinearMtfChannel kStretch{0.01, 0.002, 0.0044, 0.0166139241};

TEST(ApplyLinearMtf, StretchesEachChannelByItsOwnParameters) {
  cv::Mat image(1, 2, CV_32FC3);
  image.at<cv::Vec3f>(0, 0) = {0.01F, 0.01F, 0.01F};
  image.at<cv::Vec3f>(0, 1) = {0.2F, 1.0F, -1.0F};
  const std::vector<LinearMtfChannel> channels = {kStretch, LinearMtfChannel{}, {0, 0, 0.005, 0.25}};
  const cv::Mat source = image.clone();
  ApplyLinearMtf(image, channels);
  for (int x = 0; x < 2; ++x) {
    for (int c = 0; c < 3; ++c) {
      const LinearMtfChannel& channel = channels[static_cast<std::size_t>(c)];
      EXPECT_EQ(image.at<cv::Vec3f>(0, x)[c],
                static_cast<float>(
                    MidtonesTransfer(channel.midtones, double{source.at<cv::Vec3f>(0, x)[c]} - channel.shadows)));
    }
  }
  EXPECT_NEAR(image.at<cv::Vec3f>(0, 0)[0], 0.25F, 1e-6F);
}

TEST(ApplyLinearMtf, DoesNotNormalizeHighlights) {
  cv::Mat image(1, 1, CV_32FC1, cv::Scalar(1.0));
  ApplyLinearMtf(image, {{0, 0, 0.25, 0.5}});
  EXPECT_EQ(image.at<float>(0), 0.75F);
}

TEST(ApplyInverseLinearMtf, ReturnsSamplesAboveTheShadows) {
  test::Random random;
  const cv::Mat source = test::RandomImage(random, 20, 20, CV_32FC1, kStretch.shadows + 1e-4, 1.0);
  cv::Mat image = source.clone();
  ApplyLinearMtf(image, {kStretch});
  ApplyInverseLinearMtf(image, {kStretch});
  EXPECT_TRUE(test::Near(image, source, 4e-6));
}

TEST(ApplyInverseLinearMtf, DoesNotClamp) {
  cv::Mat image = (cv::Mat_<float>(1, 4) << -3.0F, 0.0F, 1.0F, 2.0F);
  ApplyInverseLinearMtf(image, {{0, 0, 0.25, 0.1}});
  EXPECT_TRUE(test::SameBits(image, (cv::Mat_<float>(1, 4) << 0.25F, 0.25F, 1.25F, 1.25F)));
}

TEST(ApplyLinearMtf, RefusesBeforeItChangesAnything) {
  const std::string mismatch = "Linear MTF channel parameters do not match the image.";
  cv::Mat mono(1, 1, CV_32FC1, cv::Scalar(0.5));
  cv::Mat doubles(1, 1, CV_64FC1, cv::Scalar(0.5));
  cv::Mat empty;
  const std::vector<LinearMtfChannel> three(3, kStretch);
  for (const auto apply : {ApplyLinearMtf, ApplyInverseLinearMtf}) {
    EXPECT_EQ(Refusal([&] { apply(mono, three); }), mismatch);
    EXPECT_EQ(Refusal([&] { apply(mono, {}); }), mismatch);
    EXPECT_EQ(mono.at<float>(0), 0.5F);
    EXPECT_EQ(Refusal([&] { apply(doubles, {kStretch}); }), "Linear MTF requires a float32 grayscale or RGB image.");
    EXPECT_EQ(Refusal([&] { apply(empty, {}); }), "Cannot apply linear MTF to an empty image.");
  }
}

TEST(LinearMtfClippedSamples, MarksSamplesAtOrBelowTheShadows) {
  const double shadows = 0.25;
  const float above = std::nextafter(0.25F, 1.0F);
  const cv::Mat image = (cv::Mat_<float>(2, 3) << 0.25F, above, 0.1F, -1.0F, kFloatNaN, 0.9F);
  const cv::Mat mask = LinearMtfClippedSamples(image, {{0, 0, shadows, 0.5}});
  EXPECT_TRUE(test::SameBits(mask, (cv::Mat_<std::uint8_t>(2, 3) << 255, 0, 255, 255, 0, 0)));
}

TEST(LinearMtfClippedSamples, HasThePlanesOfTheImage) {
  const cv::Mat image(1, 1, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3));
  const cv::Mat mask = LinearMtfClippedSamples(image, {{0, 0, 0.15, 0.5}, {0, 0, 0.15, 0.5}, {0, 0, 0.35, 0.5}});
  ASSERT_EQ(mask.type(), CV_8UC3);
  EXPECT_EQ(mask.at<cv::Vec3b>(0), cv::Vec3b(255, 0, 255));
}

TEST(LinearMtfClippedSamples, RefusesOtherImages) {
  EXPECT_EQ(Refusal([] { static_cast<void>(LinearMtfClippedSamples(cv::Mat(), {})); }),
            "Cannot apply linear MTF to an empty image.");
  EXPECT_EQ(Refusal([] { static_cast<void>(LinearMtfClippedSamples(cv::Mat(1, 1, CV_8UC1), {kStretch})); }),
            "Linear MTF requires a float32 grayscale or RGB image.");
  EXPECT_EQ(Refusal([] {
              static_cast<void>(LinearMtfClippedSamples(cv::Mat(1, 1, CV_32FC1), {kStretch, kStretch, kStretch}));
            }),
            "Linear MTF channel parameters do not match the image.");
}

TEST(RestoreLinearMtfClippedSamples, GivesClippedSamplesBackBitForBit) {
  test::Random random;
  for (const int type : {CV_32FC1, CV_32FC3}) {
    const cv::Mat source = test::RandomImage(random, 24, 24, type, -0.1, 1.0);
    const auto channels = ComputeLinearMtf(source, -0.5, 0.25);
    const cv::Mat mask = LinearMtfClippedSamples(source, channels);
    ASSERT_GT(cv::countNonZero(mask.reshape(1)), 0);
    cv::Mat output = source.clone();
    ApplyLinearMtf(output, channels);
    ApplyInverseLinearMtf(output, channels);
    EXPECT_FALSE(test::Near(output, source, 1e-3));
    RestoreLinearMtfClippedSamples(output, source, mask);
    EXPECT_TRUE(test::Near(output, source, 1e-5));
    cv::Mat difference;
    cv::absdiff(output, source, difference);
    difference.setTo(0, ~mask);
    EXPECT_EQ(cv::norm(difference), 0.0);
  }
}

TEST(RestoreLinearMtfClippedSamples, RefusesWhatDoesNotMatch) {
  const std::string badSource = "Linear MTF source does not match the output image.";
  const std::string badMask = "Linear MTF clipped-sample mask does not match the output image.";
  cv::Mat output(2, 2, CV_32FC3, cv::Scalar::all(0.5));
  const cv::Mat source(2, 2, CV_32FC3, cv::Scalar::all(0.1));
  const cv::Mat mask(2, 2, CV_8UC3, cv::Scalar::all(255));
  const auto refusal = [&](cv::Mat& to, const cv::Mat& from, const cv::Mat& where) {
    return Refusal([&] { RestoreLinearMtfClippedSamples(to, from, where); });
  };
  EXPECT_EQ(refusal(output, cv::Mat(2, 3, CV_32FC3), mask), badSource);
  EXPECT_EQ(refusal(output, cv::Mat(2, 2, CV_32FC1), mask), badSource);
  EXPECT_EQ(refusal(output, source, cv::Mat(3, 2, CV_8UC3)), badMask);
  EXPECT_EQ(refusal(output, source, cv::Mat(2, 2, CV_8UC1)), badMask);
  EXPECT_EQ(refusal(output, source, cv::Mat(2, 2, CV_8SC3)), badMask);
  EXPECT_EQ(refusal(output, source, cv::Mat()), badMask);
  EXPECT_EQ(refusal(output, cv::Mat(), mask), "Cannot apply linear MTF to an empty image.");
  EXPECT_EQ(refusal(output, cv::Mat(2, 2, CV_64FC3), mask), "Linear MTF requires a float32 grayscale or RGB image.");
  cv::Mat empty;
  EXPECT_EQ(refusal(empty, source, mask), "Cannot apply linear MTF to an empty image.");
  EXPECT_TRUE(test::SameBits(output, cv::Mat(2, 2, CV_32FC3, cv::Scalar::all(0.5))));
}

}  // namespace
}  // namespace ulmora::core
