#include "cli/FixedLinearMtf.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace ulmora::cli {
namespace {

using core::MidtonesTransfer;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

template <typename Call>
std::string Refusal(Call&& call) {
  return test::ThrownText<std::invalid_argument>(std::forward<Call>(call));
}

FixedLinearMtf Prepare(const cv::Mat& image, double divisor = 1.0) {
  return {image, divisor, -2.8, 0.25};
}

std::string PrepareRefusal(const cv::Mat& image, double divisor = 1.0) {
  return Refusal([&] { Prepare(image, divisor); });
}

/// An image of a plausible background with some spread, in every channel.
cv::Mat SkyImage(test::Random& random, int rows, int cols, int type) {
  return test::RandomImage(random, rows, cols, type, 0.05, 0.15);
}

TEST(FixedLinearMtf, MatchesTheWorkedExample) {
  const double spread = 0.002 / 1.4826;
  const cv::Mat image = (cv::Mat_<double>(1, 5) << 0.01 - spread, 0.01 + spread, 0.01, 0.01 - spread, 0.01 + spread);
  const FixedLinearMtf mtf = Prepare(image);
  ASSERT_EQ(mtf.Channels().size(), 1u);
  const FixedLinearMtf::Channel& channel = mtf.Channels()[0];
  EXPECT_DOUBLE_EQ(channel.median, 0.01);
  EXPECT_NEAR(channel.normalizedMad, 0.002, 1e-15);
  EXPECT_NEAR(channel.shadows, 0.0044, 1e-15);
  EXPECT_NEAR(channel.midtones, 0.0166139241, 5e-11);
  EXPECT_FALSE(channel.constant);
  EXPECT_EQ(channel.clippedSamples, 0u);
  EXPECT_NEAR(mtf.InferenceInput().at<float>(0, 2), 0.25F, 1e-7F);
}

TEST(FixedLinearMtf, AgreesWithSortingOnRandomImages) {
  test::Random random;
  for (int round = 0; round < 60; ++round) {
    const int type = round % 2 == 0 ? CV_64FC1 : CV_64FC3;
    const double divisor = random.Double(0.5, 70000.0);
    cv::Mat image = test::RandomImage(random, random.Int(2, 9), random.Int(2, 9), type, 0.2, 0.95);
    image.ptr<double>(0)[0] = 1.2;
    image *= divisor;
    const FixedLinearMtf mtf(image, divisor, -0.7, 0.3);
    for (int c = 0; c < image.channels(); ++c) {
      cv::Mat plane;
      cv::extractChannel(image, plane, c);
      std::vector<double> sorted;
      for (const double raw : cv::Mat_<double>(plane)) sorted.push_back(std::min(raw / divisor, 1.0));
      const auto median = [](std::vector<double>& values) {
        std::sort(values.begin(), values.end());
        const std::size_t n = values.size();
        return n % 2 == 1 ? values[n / 2] : values[n / 2 - 1] / 2.0 + values[n / 2] / 2.0;
      };
      const double middle = median(sorted);
      std::vector<double> deviations;
      for (const double value : sorted) deviations.push_back(std::abs(value - middle));
      const double mad = median(deviations) * 1.4826;
      const FixedLinearMtf::Channel& channel = mtf.Channels()[static_cast<std::size_t>(c)];
      EXPECT_EQ(channel.median, middle);
      EXPECT_EQ(channel.normalizedMad, mad);
      const double shadows = mad > 0.0 ? std::clamp(middle + mad * -0.7, 0.0, 1.0) : 0.0;
      EXPECT_EQ(channel.shadows, shadows);
      EXPECT_EQ(channel.midtones, MidtonesTransfer(0.3, middle - shadows));
      const auto clipped = std::count_if(sorted.begin(), sorted.end(), [&](double v) { return v <= shadows; });
      EXPECT_EQ(channel.clippedSamples, static_cast<std::uint64_t>(clipped));
      double least = 0.0;
      double greatest = 0.0;
      cv::minMaxLoc(plane, &least, &greatest);
      EXPECT_EQ(channel.minimum, least);
      EXPECT_EQ(channel.maximum, greatest);
    }
  }
}

TEST(FixedLinearMtf, StretchesInDoubleAndNarrowsOnce) {
  test::Random random;
  const cv::Mat image = SkyImage(random, 7, 5, CV_64FC3);
  const FixedLinearMtf mtf = Prepare(image);
  const cv::Mat inference = mtf.InferenceInput();
  ASSERT_EQ(inference.type(), CV_32FC3);
  for (int y = 0; y < image.rows; ++y) {
    for (int i = 0; i < image.cols * 3; ++i) {
      const FixedLinearMtf::Channel& channel = mtf.Channels()[static_cast<std::size_t>(i % 3)];
      const double stretched = MidtonesTransfer(channel.midtones, image.ptr<double>(y)[i] - channel.shadows);
      EXPECT_EQ(inference.ptr<float>(y)[i], static_cast<float>(stretched));
    }
  }
}

TEST(FixedLinearMtf, BringsTheBackgroundToTheTarget) {
  test::Random random;
  const FixedLinearMtf mtf(SkyImage(random, 15, 15, CV_64FC1), 1.0, -1.0, 0.4);
  std::vector<float> stretched;
  for (const float sample : cv::Mat_<float>(mtf.InferenceInput())) stretched.push_back(sample);
  std::nth_element(stretched.begin(), stretched.begin() + 112, stretched.end());
  EXPECT_NEAR(stretched[112], 0.4F, 1e-6F);
}

TEST(FixedLinearMtf, TakesItsOwnSnapshot) {
  test::Random random;
  cv::Mat image = SkyImage(random, 4, 4, CV_64FC1);
  const cv::Mat before = image.clone();
  const FixedLinearMtf mtf = Prepare(image);
  image.setTo(77.0);
  EXPECT_TRUE(test::SameBits(mtf.EffectiveInput(), before));
}

TEST(FixedLinearMtf, ReadsRegionsOfLargerImages) {
  test::Random random;
  const cv::Mat large = SkyImage(random, 20, 20, CV_64FC3);
  const cv::Mat region = large(cv::Rect(3, 4, 7, 9));
  const FixedLinearMtf ofRegion = Prepare(region);
  const FixedLinearMtf ofCopy = Prepare(region.clone());
  EXPECT_TRUE(test::SameBits(ofRegion.InferenceInput(), ofCopy.InferenceInput()));
  EXPECT_TRUE(test::SameBits(ofRegion.EffectiveInput(), region));
}

TEST(FixedLinearMtf, TakesOnePixelForConstant) {
  const cv::Mat image(1, 1, CV_64FC3, cv::Scalar(0.0, 0.3, 0.9));
  const FixedLinearMtf mtf = Prepare(image);
  EXPECT_TRUE(test::SameBits(mtf.InferenceInput(), cv::Mat(1, 1, CV_32FC3, cv::Scalar::all(0))));
  for (const auto& channel : mtf.Channels()) EXPECT_TRUE(channel.constant);
  EXPECT_TRUE(test::SameBits(mtf.Inverse(cv::Mat(1, 1, CV_32FC3, cv::Scalar(0.5, 7.0, kNaN)), false), image));
}

TEST(FixedLinearMtf, ClipsAboveOneAndCounts) {
  const cv::Mat image = (cv::Mat_<double>(1, 5) << 0.1, 0.2, 0.3, 1.5, 1.0);
  const FixedLinearMtf mtf = Prepare(image);
  EXPECT_EQ(mtf.EffectiveInput().at<double>(3), 1.0);
  EXPECT_EQ(mtf.Channels()[0].aboveOne, 1u);
  EXPECT_EQ(mtf.Channels()[0].maximum, 1.5);
  EXPECT_EQ(mtf.Channels()[0].minimum, 0.1);
}

TEST(FixedLinearMtf, KeepsNegativeSamplesAndCounts) {
  const cv::Mat image = (cv::Mat_<double>(1, 5) << 0.1, -0.2, 0.3, 0.12, 0.11);
  const FixedLinearMtf mtf = Prepare(image);
  EXPECT_EQ(mtf.EffectiveInput().at<double>(1), -0.2);
  EXPECT_EQ(mtf.Channels()[0].belowZero, 1u);
  EXPECT_EQ(mtf.Channels()[0].minimum, -0.2);
  EXPECT_EQ(mtf.InferenceInput().at<float>(1), 0.0F);
  EXPECT_GE(mtf.Channels()[0].clippedSamples, 1u);
}

TEST(FixedLinearMtf, DividesRawSamplesAndReportsThemRaw) {
  const cv::Mat image = (cv::Mat_<double>(1, 5) << 6553.5, 13107.0, 19660.5, 131070.0, 65535.0);
  const FixedLinearMtf mtf = Prepare(image, 65535.0);
  EXPECT_EQ(mtf.EffectiveInput().at<double>(1), 13107.0 / 65535.0);
  EXPECT_EQ(mtf.EffectiveInput().at<double>(3), 1.0);
  EXPECT_EQ(mtf.Channels()[0].maximum, 131070.0);
  EXPECT_EQ(mtf.Channels()[0].aboveOne, 1u);
}

TEST(FixedLinearMtf, ClippingCanMakeAChannelConstant) {
  const cv::Mat image = (cv::Mat_<double>(1, 3) << 1.5, 2.0, 1.0);
  const FixedLinearMtf mtf = Prepare(image);
  EXPECT_TRUE(mtf.Channels()[0].constant);
  EXPECT_TRUE(test::SameBits(mtf.Inverse(cv::Mat(1, 3, CV_32FC1, cv::Scalar(0)), false),
                             (cv::Mat_<double>(1, 3) << 1.0, 1.0, 1.0)));
}

TEST(FixedLinearMtf, CallsOnlyExactlyEqualSamplesConstant) {
  cv::Mat image(1, 9, CV_64FC1, cv::Scalar(0.25));
  EXPECT_TRUE(Prepare(image).Channels()[0].constant);
  image.at<double>(8) = std::nextafter(0.25, 1.0);
  const FixedLinearMtf mtf = Prepare(image);
  EXPECT_FALSE(mtf.Channels()[0].constant);
  EXPECT_EQ(mtf.Channels()[0].normalizedMad, 0.0);
  EXPECT_EQ(mtf.Channels()[0].shadows, 0.0);
}

TEST(FixedLinearMtf, CountsASampleAtTheShadowsPointAsClipped) {
  // No spread, so the shadows point is 0 exactly.
  const cv::Mat image = (cv::Mat_<double>(1, 5) << 0.0, 0.5, 0.5, 0.5, 0.5);
  const FixedLinearMtf mtf = Prepare(image);
  EXPECT_EQ(mtf.Channels()[0].clippedSamples, 1u);
  cv::Mat output(1, 5, CV_64FC1, cv::Scalar(0.25));
  mtf.RestoreNormalized(output);
  EXPECT_TRUE(test::SameBits(output, (cv::Mat_<double>(1, 5) << 0.0, 0.25, 0.25, 0.25, 0.25)));
}

TEST(FixedLinearMtf, AcceptsConstantChannelsOfAnyLevel) {
  for (const double level : {-1.0, 0.0, 1.0, 50.0}) {
    const FixedLinearMtf mtf = Prepare(cv::Mat(3, 3, CV_64FC1, cv::Scalar(level)));
    EXPECT_TRUE(mtf.Channels()[0].constant);
    EXPECT_EQ(mtf.EffectiveInput().at<double>(0), std::min(level, 1.0));
  }
}

TEST(FixedLinearMtf, RefusesABackgroundThatCannotBeInverted) {
  const std::string tail = ". Normalize or prepare the image upstream.";
  const std::string first = "Linear input has a non-invertible MTF background in channel 1" + tail;
  // Six of ten at zero: median, spread and balance are all 0.
  EXPECT_EQ(PrepareRefusal((cv::Mat_<double>(1, 10) << 0, 0, 0, 0, 0, 0, 0.1, 0.2, 0.3, 0.4)), first);
  EXPECT_EQ(PrepareRefusal((cv::Mat_<double>(1, 3) << -0.5, -0.4, 0.9)), first);
  // Over half at the top: the balance is 1.
  EXPECT_EQ(PrepareRefusal((cv::Mat_<double>(1, 5) << 1.0, 1.0, 1.0, 0.5, 2.0)), first);
  // The spread overflows.
  EXPECT_EQ(PrepareRefusal((cv::Mat_<double>(1, 5) << -1.7e308, -1.6e308, 0.5, 0.6, -1.5e308)), first);
}

TEST(FixedLinearMtf, NumbersTheChannelThatItRefuses) {
  test::Random random;
  cv::Mat image(4, 4, CV_64FC3, cv::Scalar(0.3, 0.5, 0.0));
  image.at<cv::Vec3d>(2, 2)[2] = 0.4;
  EXPECT_EQ(PrepareRefusal(image),
            "Linear input has a non-invertible MTF background in channel 3. Normalize or prepare the image upstream.");
  image.setTo(cv::Scalar(0.3, 0.0, 0.5));
  image.at<cv::Vec3d>(0, 1)[1] = 0.4;
  EXPECT_EQ(PrepareRefusal(image),
            "Linear input has a non-invertible MTF background in channel 2. Normalize or prepare the image upstream.");
}

TEST(FixedLinearMtf, RefusesOtherImages) {
  const std::string text = "Fixed linear MTF requires a float64 mono or RGB image.";
  EXPECT_EQ(PrepareRefusal(cv::Mat()), text);
  for (const int type : {CV_32FC1, CV_32FC3, CV_16UC1, CV_64FC2, CV_64FC4}) {
    EXPECT_EQ(PrepareRefusal(cv::Mat(2, 2, type, cv::Scalar::all(0))), text);
  }
  // Before the numbers.
  EXPECT_EQ(PrepareRefusal(cv::Mat(), -1.0), text);
}

TEST(FixedLinearMtf, RefusesOtherNumbers) {
  const cv::Mat image(2, 2, CV_64FC1, cv::Scalar(0.5));
  for (const double divisor : {0.0, -1.0, kNaN, kInfinity}) {
    EXPECT_EQ(Refusal([&] { FixedLinearMtf(image, divisor, 1.0, 7.0); }),
              "Linear input requires a finite positive sample-format divisor.");
  }
  const std::string numbers = "Linear MTF requires a negative shadows multiplier and target between 0 and 1.";
  for (const double multiplier : {0.0, -0.0, 2.8, kNaN, -kInfinity}) {
    EXPECT_EQ(Refusal([&] { FixedLinearMtf(image, 1.0, multiplier, 0.25); }), numbers);
  }
  for (const double target : {0.0, 1.0, -0.1, 1.1, kNaN, kInfinity}) {
    EXPECT_EQ(Refusal([&] { FixedLinearMtf(image, 1.0, -2.8, target); }), numbers);
  }
}

TEST(FixedLinearMtf, RefusesNonFiniteSamples) {
  const std::string text = "Linear input contains a non-finite sample or unrepresentable conversion.";
  for (const double sample : {kNaN, kInfinity, -kInfinity}) {
    cv::Mat image(2, 2, CV_64FC3, cv::Scalar::all(0.5));
    image.at<cv::Vec3d>(1, 1)[2] = sample;
    EXPECT_EQ(PrepareRefusal(image), text);
  }
  EXPECT_EQ(PrepareRefusal(cv::Mat(1, 1, CV_64FC1, cv::Scalar(1e300)), 1e-300), text);
}

TEST(FixedLinearMtfMedian, HalvesBeforeItAdds) {
  EXPECT_EQ(FixedLinearMtf::Median({3.0}), 3.0);
  EXPECT_EQ(FixedLinearMtf::Median({4.0, 1.0, 3.0, 2.0}), 2.5);
  EXPECT_EQ(FixedLinearMtf::Median({5.0, -1.0, 2.0}), 2.0);
  EXPECT_DOUBLE_EQ(FixedLinearMtf::Median({1.7e308, 1.6e308}), 1.65e308);
  // The halves of the least denormal vanish.
  const double least = std::numeric_limits<double>::denorm_min();
  EXPECT_EQ(FixedLinearMtf::Median({least, least}), 0.0);
}

TEST(FixedLinearMtfInverse, ReturnsTheInputFromItsOwnStretch) {
  test::Random random;
  const cv::Mat image = SkyImage(random, 9, 9, CV_64FC3);
  const FixedLinearMtf mtf(image, 1.0, -5.0, 0.25);
  cv::Mat stretched;
  mtf.InferenceInput().convertTo(stretched, CV_64F);
  EXPECT_TRUE(test::Near(mtf.Inverse(stretched, false), image, 1e-7));
  EXPECT_TRUE(test::Near(mtf.Inverse(mtf.InferenceInput(), false), image, 1e-7));
}

TEST(FixedLinearMtfInverse, DoesNotClampAndRestoresOnRequest) {
  const cv::Mat image = (cv::Mat_<double>(1, 5) << 0.0, 0.1, 0.11, 0.12, 0.13);
  const FixedLinearMtf mtf(image, 1.0, -1.0, 0.25);
  const double shadows = mtf.Channels()[0].shadows;
  ASSERT_GT(shadows, 0.0);
  const cv::Mat prediction = (cv::Mat_<float>(1, 5) << -1.0F, 0.0F, 0.25F, 1.0F, 9.0F);
  const cv::Mat plain = mtf.Inverse(prediction, false);
  EXPECT_EQ(plain.at<double>(0), shadows);
  EXPECT_EQ(plain.at<double>(1), shadows);
  EXPECT_EQ(plain.at<double>(3), 1.0 + shadows);
  EXPECT_EQ(plain.at<double>(4), 1.0 + shadows);
  const cv::Mat restored = mtf.Inverse(prediction, true);
  for (int x = 0; x < 5; ++x) {
    const bool clipped = image.at<double>(x) <= shadows;
    EXPECT_EQ(restored.at<double>(x), clipped ? image.at<double>(x) : plain.at<double>(x));
  }
  EXPECT_EQ(restored.at<double>(0), 0.0);
  EXPECT_EQ(mtf.Channels()[0].clippedSamples, 1u);
}

TEST(FixedLinearMtfInverse, MindsNonFinitePredictionsInStretchedChannelsOnly) {
  cv::Mat image(1, 5, CV_64FC3, cv::Scalar(0.7, 0.0, 0.2));
  for (int x = 0; x < 5; ++x) image.at<cv::Vec3d>(x)[1] = 0.1 + 0.01 * x;
  const FixedLinearMtf mtf = Prepare(image);
  for (const float odd : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
    cv::Mat prediction(1, 5, CV_32FC3, cv::Scalar(odd, 0.5, odd));
    cv::Mat planes[3];
    cv::split(mtf.Inverse(prediction, false), planes);
    EXPECT_EQ(cv::countNonZero(planes[0] != 0.7), 0);
    EXPECT_EQ(cv::countNonZero(planes[2] != 0.2), 0);
    prediction.at<cv::Vec3f>(4)[1] = odd;
    EXPECT_EQ(Refusal([&] { static_cast<void>(mtf.Inverse(prediction, false)); }),
              "Linear MTF inference returned a non-finite sample.");
  }
}

TEST(FixedLinearMtfInverse, RefusesWhatDoesNotMatch) {
  test::Random random;
  const FixedLinearMtf mtf = Prepare(SkyImage(random, 4, 4, CV_64FC3));
  for (const cv::Mat& prediction : {cv::Mat(), cv::Mat(4, 5, CV_32FC3), cv::Mat(4, 4, CV_32FC1),
                                    cv::Mat(4, 4, CV_16UC3), cv::Mat(4, 4, CV_32SC3)}) {
    EXPECT_EQ(Refusal([&] { static_cast<void>(mtf.Inverse(prediction, false)); }),
              "Linear MTF prediction does not match the prepared image.");
  }
}

TEST(FixedLinearMtfRestore, WritesConstantAndClippedSamples) {
  cv::Mat image(1, 5, CV_64FC3, cv::Scalar(0.7, 0.0, 0.2));
  const double levels[] = {0.0, 0.1, 0.11, 0.12, 0.13};
  for (int x = 0; x < 5; ++x) image.at<cv::Vec3d>(x)[1] = levels[x];
  const FixedLinearMtf mtf(image, 1.0, -1.0, 0.25);
  cv::Mat output(1, 5, CV_64FC3, cv::Scalar::all(0.5));
  mtf.RestoreNormalized(output);
  for (int x = 0; x < 5; ++x) EXPECT_EQ(output.at<cv::Vec3d>(x), cv::Vec3d(0.7, x == 0 ? 0.0 : 0.5, 0.2));
}

TEST(FixedLinearMtfRestore, RefusesWhatDoesNotMatch) {
  test::Random random;
  const FixedLinearMtf mtf = Prepare(SkyImage(random, 4, 4, CV_64FC3));
  const std::string text = "Linear MTF output does not match the prepared image.";
  for (cv::Mat image : {cv::Mat(), cv::Mat(4, 5, CV_64FC3), cv::Mat(4, 4, CV_32FC3), cv::Mat(4, 4, CV_64FC1)}) {
    EXPECT_EQ(Refusal([&] { mtf.RestoreNormalized(image); }), text);
    EXPECT_EQ(Refusal([&] { mtf.ValidateMatching(image); }), text);
  }
  EXPECT_NO_THROW(mtf.ValidateMatching(mtf.EffectiveInput()));
}

}  // namespace
}  // namespace ulmora::cli
