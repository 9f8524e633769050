#include "cli/LumvaneModel.h"
#include "tests/cli_unit/TiffBytes.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <filesystem>
#include <iostream>

namespace {

constexpr int kWindow = 512;

class LumvaneModelRun : public testing::Test {
 protected:
  void Save(const std::string& name, int rows, int cols, int type) const {
    cv::Mat image(rows, cols, type);
    cv::randu(image, 0, 256);
    cv::imwrite(folder_.Path(name), image);
  }

  /// Builds a model whose package does not exist: nothing here may look for it.
  [[nodiscard]] std::string Refusal(const std::string& input, int version, int stride) const {
    return ulmora::test::ThrownText<std::invalid_argument>([&] {
      const ulmora::test::CapturedStream error(std::cerr);
      const LumvaneModel model(folder_.Path(input), folder_.Path("out.png"), version, stride, kWindow,
                               folder_.Path("no.mlpackage"), false, false, false);
    });
  }

  ulmora::test::TemporaryFolder folder_;
};

TEST_F(LumvaneModelRun, ChecksTheStrideBeforeItLooksForTheInput) {
  const std::string range = "Stride must be positive and no larger than the window size (512).";
  for (const int stride : {0, -2, -480, 513, 514}) EXPECT_EQ(Refusal("missing.png", 2, stride), range) << stride;
  for (const int stride : {511, 1, 479})
    EXPECT_EQ(Refusal("missing.png", 2, stride), "Stride should be even!") << stride;
  for (const int stride : {512, 510, 480, 2}) {
    EXPECT_EQ(Refusal("missing.png", 2, stride), "Input image does not exist: " + folder_.Path("missing.png"))
        << stride;
  }
}

TEST_F(LumvaneModelRun, AcceptsTheSmallestImageAndTheWidestStride) {
  Save("a.png", 512, 512, CV_8UC3);
  EXPECT_EQ(Refusal("a.png", 2, 512), "no exception");
  EXPECT_EQ(Refusal("a.png", 1, 480), "no exception");
}

TEST_F(LumvaneModelRun, RefusesSmallerImages) {
  Save("a.png", 511, 600, CV_8UC3);
  EXPECT_EQ(Refusal("a.png", 2, 480), "Image size is too small for the window!");
}

TEST_F(LumvaneModelRun, VersionOneRefusesGrayscaleBeforeTheSizeIsLookedAt) {
  const std::string text = "Model version 1 cannot be used with grayscale input. Use model version 2 for grayscale.";
  Save("gray.png", 20, 20, CV_8UC1);
  EXPECT_EQ(Refusal("gray.png", 1, 480), text);
  EXPECT_EQ(Refusal("gray.png", 2, 480), "Image size is too small for the window!");
  cv::imwrite(folder_.Path("equal.png"), cv::Mat(512, 512, CV_8UC3, cv::Scalar::all(9)));
  EXPECT_EQ(Refusal("equal.png", 1, 480), text);
  EXPECT_EQ(Refusal("equal.png", 2, 480), "no exception");
}

TEST_F(LumvaneModelRun, LooksForThePackageOnlyWhenTheTilesAreToRun) {
  Save("a.png", 512, 512, CV_8UC3);
  for (const auto& [quiet, machine] : {std::pair(false, false), {true, false}, {false, true}}) {
    const ulmora::test::CapturedStream out(std::cout);
    const ulmora::test::CapturedStream error(std::cerr);
    LumvaneModel model(folder_.Path("a.png"), folder_.Path("out.png"), 2, 480, kWindow, folder_.Path("no.mlpackage"),
                       quiet, machine, false);
    model.ConfigureLinearMtf(false, -2.8, 0.25, false);
    const std::string text = ulmora::test::ThrownText<std::runtime_error>([&] { model.Process(); });
    EXPECT_THAT(text, testing::StartsWith("CoreML model package not found: " + folder_.Path("no.mlpackage") + "\n"));
    EXPECT_FALSE(std::filesystem::exists(folder_.Path("out.png")));
    EXPECT_EQ(out.Text(), quiet || machine ? ""
                                           : "Restoring neural network checkpoint... \nLoading CoreML model package: " +
                                                 folder_.Path("no.mlpackage") + "\n");
  }
}

TEST_F(LumvaneModelRun, TheOutputImageIsHandedOutAsACopy) {
  Save("a.png", 512, 512, CV_8UC3);
  const ulmora::test::CapturedStream error(std::cerr);
  LumvaneModel model(folder_.Path("a.png"), folder_.Path("out.png"), 2, 480, kWindow, "", false, false, false);
  EXPECT_TRUE(model.GetOutputImage().empty());
}

}  // namespace
