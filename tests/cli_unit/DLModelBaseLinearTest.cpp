#include "cli/DLModelBase.h"
#include "cli/FloatImageChannels.h"
#include "common/GridAlignedResample.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace {

using ulmora::cli::FixedLinearMtf;
using ulmora::test::Near;
using ulmora::test::Random;
using ulmora::test::RandomImage;
using ulmora::test::SameBits;
using ulmora::test::ThrownText;

/// A model whose image was put in place by the test instead of being read.
class LinearModel : public DLModelBase {
 public:
  /// `source` holds normalized samples on the input's grid, in one or three planes.
  explicit LinearModel(const cv::Mat& source) {
    grayscale_ = source.channels() == 1;
    image_ = grayscale_ ? ulmora::cli::GrayToRgb(source) : source;
    source_image_ = source;
  }
  using DLModelBase::fits_metadata_;
  using DLModelBase::fixed_linear_mtf_;
  using DLModelBase::image_;
  using DLModelBase::input_scale_;
  using DLModelBase::linear_channels_;
  using DLModelBase::linear_image_;
  using DLModelBase::quiet_;
  using DLModelBase::source_image_;
};

/// What the call writes to standard error.
template <typename Call>
std::string StandardError(Call&& call) {
  const std::ostringstream text;
  std::streambuf* const before = std::cerr.rdbuf(text.rdbuf());
  try {
    call();
  } catch (...) {
    std::cerr.rdbuf(before);
    throw;
  }
  std::cerr.rdbuf(before);
  return text.str();
}

std::string Configure(LinearModel& model, double shadows = -2.8, double target = 0.25, bool restore = false) {
  return StandardError([&] { model.ConfigureLinearMtf(true, shadows, target, restore); });
}

cv::Mat Sky(Random& random, int rows, int cols, int type) {
  return RandomImage(random, rows, cols, type, 0.05, 0.15);
}

TEST(LinearModel, PassesEverythingThroughWithoutTheMode) {
  Random random;
  LinearModel model(RandomImage(random, 6, 6, CV_32FC3, 0.0, 1.0));
  EXPECT_EQ(StandardError([&] { model.ConfigureLinearMtf(false, 5.0, 7.0, false); }),
            "Info [linear_mtf]: disabled; no automatic stretch or inverse transform\n");
  EXPECT_EQ(&model.InferenceImage(), &model.image_);
  const cv::Mat output = RandomImage(random, 6, 6, CV_32FC3);
  const cv::Mat restored = model.RestoreLinearMtfOutput(output);
  EXPECT_NE(restored.data, output.data);
  EXPECT_TRUE(SameBits(restored, output));
  EXPECT_EQ(model.FinalizeLinearImage(restored).data, restored.data);
  cv::Mat image = output.clone();
  model.RestoreFinalLinearSamples(image);
  EXPECT_TRUE(SameBits(image, output));
}

TEST(LinearModel, StretchesACopyForInference) {
  Random random;
  const cv::Mat source = Sky(random, 8, 8, CV_64FC3);
  const cv::Mat before = source.clone();
  LinearModel model(source);
  Configure(model);
  const FixedLinearMtf expected(before, 1.0, -2.8, 0.25);
  EXPECT_TRUE(SameBits(model.InferenceImage(), expected.InferenceInput()));
  EXPECT_EQ(&model.InferenceImage(), &model.linear_image_);
  EXPECT_TRUE(SameBits(model.image_, before));
  EXPECT_NE(model.image_.data, model.fixed_linear_mtf_->EffectiveInput().data);
  EXPECT_TRUE(SameBits(model.source_image_, before));
  ASSERT_EQ(model.linear_channels_.size(), 3u);
  for (std::size_t c = 0; c < 3; ++c) {
    EXPECT_EQ(model.linear_channels_[c].median, expected.Channels()[c].median);
    EXPECT_EQ(model.linear_channels_[c].normalizedMad, expected.Channels()[c].normalizedMad);
    EXPECT_EQ(model.linear_channels_[c].shadows, expected.Channels()[c].shadows);
    EXPECT_EQ(model.linear_channels_[c].midtones, expected.Channels()[c].midtones);
  }
}

TEST(LinearModel, ReportsEveryChannel) {
  Random random;
  cv::Mat source = Sky(random, 8, 8, CV_64FC3);
  for (int y = 0; y < 8; ++y) {
    for (int x = 0; x < 8; ++x) source.at<cv::Vec3d>(y, x)[2] = 0.5;
  }
  LinearModel model(source);
  model.input_scale_ = 65535.0;
  const std::string text = Configure(model, -0.5, 0.2);
  std::string expected;
  for (std::size_t c = 0; c < 3; ++c) {
    const FixedLinearMtf::Channel& channel = model.fixed_linear_mtf_->Channels()[c];
    char line[600];
    std::snprintf(line, sizeof line,
                  "Info [linear_mtf]: channel=%zu median=%.17g normalized_MAD=%.17g shadows=%.17g "
                  "physical_shadows=%.17g midtones=%.17g shadows_multiplier=-0.5 "
                  "target_background=0.20000000000000001 working_grid_clipped=%llu constant=%d; "
                  "MTF/inverse=float64; inference=float32\n",
                  c + 1, channel.median, channel.normalizedMad, channel.shadows, channel.shadows * 65535.0,
                  channel.midtones, static_cast<unsigned long long>(channel.clippedSamples), c == 2 ? 1 : 0);
    expected += line;
  }
  EXPECT_EQ(text, expected);
  EXPECT_GT(model.fixed_linear_mtf_->Channels()[0].clippedSamples, 0u);
}

TEST(LinearModel, WarnsOnceOfClippingBeforeTheChannelLines) {
  Random random;
  cv::Mat source = Sky(random, 8, 8, CV_64FC3);
  source.at<cv::Vec3d>(3, 3)[1] = 1.5;
  source.at<cv::Vec3d>(3, 4)[1] = -0.5;
  LinearModel model(source);
  const std::string text = Configure(model);
  const std::string warning =
      "Warning [data_loss]: Pre-MTF working-grid samples above 1 are clipped. scalar_samples=192 finite=192 "
      "nonfinite=0 "
      "physical_range=[-0.5,1.5] type_normalized_range=[-0.5,1.5] below_zero=1 (0.52083333333333337%) above_one=1 "
      "(0.52083333333333337%)\n";
  EXPECT_EQ(text.substr(0, warning.size()), warning);
  EXPECT_EQ(text.find("data_loss", warning.size()), std::string::npos);
  EXPECT_EQ(model.fixed_linear_mtf_->Channels()[1].aboveOne, 1u);
  EXPECT_EQ(model.image_.at<cv::Vec3d>(3, 3)[1], 1.0);
  EXPECT_EQ(model.source_image_.at<cv::Vec3d>(3, 3)[1], 1.5);
}

TEST(LinearModel, KeepsTheWarningUnderQuietAlone) {
  Random random;
  cv::Mat source = Sky(random, 8, 8, CV_64FC1);
  LinearModel silent(source.clone());
  silent.quiet_ = true;
  EXPECT_EQ(Configure(silent), "");
  source.at<double>(0) = 1.25;
  LinearModel warned(source);
  warned.quiet_ = true;
  const std::string text = Configure(warned);
  EXPECT_TRUE(text.starts_with("Warning [data_loss]: Pre-MTF")) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST(LinearModel, DoesNotWarnOfExactlyOneOrOfAnInfinity) {
  Random random;
  cv::Mat source = Sky(random, 8, 8, CV_64FC1);
  source.at<double>(5) = 1.0;
  LinearModel exact(source.clone());
  EXPECT_EQ(Configure(exact).find("data_loss"), std::string::npos);
  source.at<double>(5) = std::numeric_limits<double>::infinity();
  LinearModel infinite(source);
  std::string refusal;
  EXPECT_EQ(StandardError([&] {
              refusal =
                  ThrownText<std::invalid_argument>([&] { infinite.ConfigureLinearMtf(true, -2.8, 0.25, false); });
            }),
            "");
  EXPECT_EQ(refusal, "Linear input contains a non-finite sample or unrepresentable conversion.");
}

TEST(LinearModel, RefusesImagesThatWereNotReadForTheMode) {
  for (const cv::Mat& image : {cv::Mat(), cv::Mat(4, 4, CV_32FC3, cv::Scalar::all(0.5))}) {
    LinearModel model(cv::Mat(4, 4, CV_64FC3, cv::Scalar::all(0.5)));
    model.image_ = image;
    EXPECT_EQ(ThrownText<std::invalid_argument>([&] { model.ConfigureLinearMtf(true, -2.8, 0.25, false); }),
              "Linear preparation requires a nonempty float64 input.");
  }
}

TEST(LinearModel, PassesOnTheRefusalsOfTheStretch) {
  Random random;
  LinearModel model(Sky(random, 4, 4, CV_64FC3));
  EXPECT_EQ(ThrownText<std::invalid_argument>([&] { model.ConfigureLinearMtf(true, 2.8, 0.25, false); }),
            "Linear MTF requires a negative shadows multiplier and target between 0 and 1.");
}

TEST(LinearModel, ReturnsTheSourceWhenTheNetworkChangesNothing) {
  Random random;
  for (const int type : {CV_64FC1, CV_64FC3}) {
    const cv::Mat source = Sky(random, 16, 16, type);
    LinearModel model(source);
    const std::string text = Configure(model, -5.0);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    const cv::Mat restored = model.RestoreLinearMtfOutput(model.InferenceImage());
    EXPECT_EQ(restored.type(), CV_64FC3);
    EXPECT_TRUE(Near(model.FinalizeLinearImage(restored), source, 1e-7));
  }
}

TEST(LinearModel, LeavesClippedShadowsWhereTheInverseGivesThem) {
  cv::Mat source = (cv::Mat_<double>(1, 5) << 0.0, 0.1, 0.11, 0.12, 0.13);
  LinearModel model(source);
  Configure(model, -1.0);
  const cv::Mat output = model.FinalizeLinearImage(model.RestoreLinearMtfOutput(model.InferenceImage()));
  EXPECT_NEAR(output.at<double>(0), model.linear_channels_[0].shadows, 1e-12);
  EXPECT_GT(output.at<double>(0), 0.01);
}

TEST(LinearModel, ShowsConstantPlanesBlackAndGivesThemBackExactly) {
  // The third level is above 1: it comes back from the source as it was read.
  const cv::Mat source(6, 6, CV_64FC3, cv::Scalar(0.1, 0.7, 1.75));
  LinearModel model(source.clone());
  Configure(model);
  EXPECT_EQ(cv::norm(model.InferenceImage()), 0.0);
  const cv::Mat output = model.RestoreLinearMtfOutput(cv::Mat(6, 6, CV_32FC3, cv::Scalar::all(0.4)));
  EXPECT_EQ(output.at<cv::Vec3d>(0)[2], 1.0);
  EXPECT_TRUE(SameBits(model.FinalizeLinearImage(output), source));
}

TEST(LinearModel, FinalImageIsADeepCopy) {
  Random random;
  const cv::Mat source = Sky(random, 6, 6, CV_64FC3);
  LinearModel model(source);
  Configure(model);
  const cv::Mat image = Sky(random, 6, 6, CV_64FC3);
  const cv::Mat output = model.FinalizeLinearImage(image);
  EXPECT_NE(output.data, image.data);
  EXPECT_TRUE(SameBits(output, image));
}

TEST(LinearModel, BringsAnEnlargedResultBackToTheSourceGrid) {
  Random random;
  const cv::Mat source = Sky(random, 6, 8, CV_64FC1);
  LinearModel model(source);
  model.image_ = ulmora::cli::GrayToRgb(ulmora::UpsampleGridCubic2x(source));
  Configure(model);
  const cv::Mat output = model.FinalizeLinearImage(model.image_);
  EXPECT_TRUE(Near(output, source, 1e-15));
}

TEST(LinearModel, RestoresShadowsFromTheSourceWhereAskedAndCounts) {
  cv::Mat source(1, 5, CV_64FC3, cv::Scalar(0.7, 0.0, 0.0));
  const double levels[] = {0.0, 0.1, 0.11, 0.12, 0.13};
  for (int x = 0; x < 5; ++x) source.at<cv::Vec3d>(x)[1] = levels[x];
  LinearModel model(source);
  Configure(model, -1.0, 0.25, true);
  cv::Mat output(1, 5, CV_64FC3, cv::Scalar::all(0.5));
  EXPECT_EQ(StandardError([&] { model.RestoreFinalLinearSamples(output); }),
            "Info [shadow_restoration]: final_source_grid channel=1 restored_shadow_samples=0 "
            "additional_constant_samples=5\n"
            "Info [shadow_restoration]: final_source_grid channel=2 restored_shadow_samples=1 "
            "additional_constant_samples=0\n"
            "Info [shadow_restoration]: final_source_grid channel=3 restored_shadow_samples=5 "
            "additional_constant_samples=0\n");
  for (int x = 0; x < 5; ++x) EXPECT_EQ(output.at<cv::Vec3d>(x), cv::Vec3d(0.7, x == 0 ? 0.0 : 0.5, 0.0));
  // The inverse restores as well.
  EXPECT_EQ(model.RestoreLinearMtfOutput(model.InferenceImage()).at<cv::Vec3d>(0)[1], 0.0);
}

TEST(LinearModel, RestoresSilentlyAndConstantChannelsOnlyOtherwise) {
  cv::Mat source = (cv::Mat_<double>(1, 5) << 0.0, 0.1, 0.11, 0.12, 0.13);
  LinearModel model(source);
  Configure(model, -1.0);
  cv::Mat output(1, 5, CV_64FC1, cv::Scalar::all(0.5));
  EXPECT_EQ(StandardError([&] { model.RestoreFinalLinearSamples(output); }), "");
  EXPECT_TRUE(SameBits(output, cv::Mat(1, 5, CV_64FC1, cv::Scalar::all(0.5))));
}

TEST(LinearModel, AssertsTheFormOfTheFinalImage) {
  Random random;
  LinearModel model(Sky(random, 6, 6, CV_64FC3));
  Configure(model);
  for (cv::Mat image : {cv::Mat(6, 5, CV_64FC3), cv::Mat(6, 6, CV_64FC1), cv::Mat(6, 6, CV_32FC3)}) {
    try {
      model.RestoreFinalLinearSamples(image);
      ADD_FAILURE() << "accepted";
    } catch (const cv::Exception& failure) {
      EXPECT_EQ(failure.code, cv::Error::StsAssert);
      EXPECT_EQ(failure.err, "image.type() == sourceOutput.type() && image.size() == sourceOutput.size()");
      EXPECT_EQ(failure.func, "RestoreFinalLinearSamples");
      EXPECT_EQ(failure.file, "src/cli/DLModelBase.cpp");
      EXPECT_EQ(failure.line, 141);
    }
  }
}

TEST(LinearModel, LeavesTheFitsWriterItsThresholdsAndConstantChannels) {
  Random random;
  cv::Mat source = Sky(random, 6, 6, CV_64FC3);
  for (int y = 0; y < 6; ++y) {
    for (int x = 0; x < 6; ++x) source.at<cv::Vec3d>(y, x)[1] = 0.5;
  }
  LinearModel model(source);
  model.fits_metadata_.linear = true;
  Configure(model, -0.5);
  EXPECT_FALSE(model.fits_metadata_.restoreForwardShadowSamples);
  ASSERT_EQ(model.fits_metadata_.shadowThresholds.size(), 3u);
  for (std::size_t c = 0; c < 3; ++c) {
    EXPECT_EQ(model.fits_metadata_.shadowThresholds[c], model.linear_channels_[c].shadows);
  }
  EXPECT_GT(model.fits_metadata_.shadowThresholds[0], 0.0);
  EXPECT_EQ(model.fits_metadata_.constantChannels, (std::vector<bool>{false, true, false}));
  Configure(model, -0.5, 0.25, true);
  EXPECT_TRUE(model.fits_metadata_.restoreForwardShadowSamples);
  EXPECT_EQ(model.fits_metadata_.shadowThresholds.size(), 3u);
}

TEST(LinearModel, RecordsNoThresholdsForOtherInputs) {
  Random random;
  LinearModel model(Sky(random, 6, 6, CV_64FC3));
  const std::string text = Configure(model);
  EXPECT_TRUE(model.fits_metadata_.shadowThresholds.empty());
  EXPECT_TRUE(model.fits_metadata_.constantChannels.empty());
  EXPECT_NE(text.find("channel=3 "), std::string::npos);
}

TEST(LinearModel, CanBeConfiguredAnew) {
  Random random;
  LinearModel model(Sky(random, 6, 6, CV_64FC3));
  Configure(model, -2.0);
  const double before = model.linear_channels_[0].shadows;
  Configure(model, -1.0);
  EXPECT_EQ(model.linear_channels_.size(), 3u);
  EXPECT_GT(model.linear_channels_[0].shadows, before);
  StandardError([&] { model.ConfigureLinearMtf(false, -1.0, 0.25, false); });
  EXPECT_TRUE(model.linear_channels_.empty());
  EXPECT_TRUE(model.linear_image_.empty());
  EXPECT_EQ(model.fixed_linear_mtf_, nullptr);
  EXPECT_EQ(&model.InferenceImage(), &model.image_);
}

}  // namespace
