#include "cli/DLModelBase.h"
#include "tests/cli_unit/ExposedModel.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

#include <iostream>
#include <stdexcept>

namespace {

using ulmora::test::ExposedModel;

std::string DimensionsRefusal(int rows, int cols) {
  ExposedModel model;
  model.window_size_ = 512;
  model.stride_ = 480;
  model.image_ = cv::Mat(rows, cols, CV_32FC3, cv::Scalar::all(0));
  return ulmora::test::ThrownText<std::invalid_argument>([&] { model.SetDimensions(); });
}

TEST(DLModelBase, DiagnosticsFollowTheRunsFlags) {
  ExposedModel model;
  model.quiet_ = true;
  model.machine_progress_ = true;
  const ulmora::cli::CliDiagnostics diagnostics = model.Diagnostics();
  EXPECT_TRUE(diagnostics.quiet);
  EXPECT_TRUE(diagnostics.machineProgress);
  EXPECT_EQ(diagnostics.stream, &std::cerr);
}

TEST(DLModelBase, FixesTheTileLayout) {
  ExposedModel model;
  model.window_size_ = 512;
  model.stride_ = 480;
  model.image_ = cv::Mat(700, 1000, CV_32FC3, cv::Scalar::all(0));
  model.SetDimensions();
  EXPECT_EQ(model.width_, 1000);
  EXPECT_EQ(model.height_, 700);
  EXPECT_EQ(model.margin_, 16);
  EXPECT_EQ(model.padded_width_, 1472);
  EXPECT_EQ(model.padded_height_, 992);
  EXPECT_EQ(model.tile_geometry_.tileCount, 6);
}

TEST(DLModelBase, AStrideOfTheWindowHasNoMargin) {
  ExposedModel model;
  model.window_size_ = 512;
  model.stride_ = 512;
  model.image_ = cv::Mat(512, 512, CV_32FC3, cv::Scalar::all(0));
  model.SetDimensions();
  EXPECT_EQ(model.margin_, 0);
}

TEST(DLModelBase, RefusesImagesSmallerThanTheWindow) {
  const std::string text = "Image size is too small for the window!";
  EXPECT_EQ(DimensionsRefusal(512, 512), "no exception");
  EXPECT_EQ(DimensionsRefusal(511, 4000), text);
  EXPECT_EQ(DimensionsRefusal(4000, 511), text);
}

TEST(RescaleImage, DoublesAndHalves) {
  ulmora::test::Random random;
  DLModelBase model;
  for (const int type : {CV_32FC3, CV_64FC1}) {
    const cv::Mat image = ulmora::test::RandomImage(random, 6, 9, type);
    const cv::Mat doubled = model.RescaleImage(image, 2.0);
    EXPECT_EQ(doubled.size(), cv::Size(18, 12));
    EXPECT_TRUE(ulmora::test::SameBits(model.RescaleImage(doubled, 0.5), image));
  }
}

TEST(RescaleImage, AssertsItsScaleAtAFixedPlace) {
  DLModelBase model;
  for (const double scale : {3.0, 1.0, 0.0}) {
    try {
      static_cast<void>(model.RescaleImage(cv::Mat(2, 2, CV_32FC1, cv::Scalar(0)), scale));
      FAIL() << "nothing was thrown";
    } catch (const cv::Exception& error) {
      EXPECT_EQ(error.code, cv::Error::StsAssert);
      EXPECT_EQ(error.err, "scale == 2.0 || scale == 0.5");
      EXPECT_EQ(error.func, "RescaleImage");
      EXPECT_EQ(error.file, "src/cli/DLModelBase.cpp");
      EXPECT_EQ(error.line, 456);
    }
  }
}

TEST(RescaleImage, LeavesOddSizesToTheHalvingItself) {
  DLModelBase model;
  try {
    static_cast<void>(model.RescaleImage(cv::Mat(3, 4, CV_32FC1, cv::Scalar(0)), 0.5));
    FAIL() << "nothing was thrown";
  } catch (const cv::Exception& error) {
    EXPECT_EQ(error.func, "DownsampleGrid2x");
  }
}

}  // namespace
