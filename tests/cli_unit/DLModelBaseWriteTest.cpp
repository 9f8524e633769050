#include "cli/AstroTiffReader.h"
#include "cli/TiffDirectory.h"
#include "tests/cli_unit/ExposedModel.h"
#include "tests/cli_unit/TiffBytes.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace {

using ulmora::test::ExposedModel;
using ulmora::test::SameBits;
using ulmora::test::ThrownText;

const std::string kHeader = "SIMPLE  =                    T\nBITPIX  =                  -32\nEND";

class Writing : public testing::Test {
 protected:
  std::string Write(const std::string& name, const cv::Mat& image) {
    const ulmora::test::CapturedStream error(std::cerr);
    model_.WriteImage(folder_.Path(name), image, ulmora::cli::FitsOutputRole::main);
    return error.Text();
  }
  [[nodiscard]] cv::Mat Written(const std::string& name) const {
    return cv::imread(folder_.Path(name), cv::IMREAD_UNCHANGED);
  }

  ulmora::test::TemporaryFolder folder_;
  ExposedModel model_;
};

TEST(GetFileExt, LowersTheLastCharacters) {
  ExposedModel model;
  EXPECT_EQ(model.GetFileExt("a.TiF", 4), ".tif");
  EXPECT_EQ(model.GetFileExt(".tif", 4), ".tif");
  EXPECT_EQ(model.GetFileExt("x/OUT.TIFF", 5), ".tiff");
}

TEST(GetFileExt, AShorterPathIsOutOfRange) {
  ExposedModel model;
  EXPECT_THROW(static_cast<void>(model.GetFileExt("a.p", 4)), std::out_of_range);
  EXPECT_THROW(static_cast<void>(model.GetFileExt("", 4)), std::out_of_range);
  // Four characters are enough for the first test, which only ".tif" passes.
  EXPECT_THROW(static_cast<void>(model.OutputIntegerDepth("a.jp")), std::out_of_range);
  EXPECT_THROW(static_cast<void>(model.OutputIntegerDepth("a.pn")), std::out_of_range);
  EXPECT_NO_THROW(static_cast<void>(model.OutputIntegerDepth(".tif")));
  EXPECT_NO_THROW(static_cast<void>(model.WriteFloat("a")));
}

TEST(OutputIntegerDepth, FollowsTheInputForThreeEndingsAndIsEightBitsElse) {
  ExposedModel model;
  for (const char* path : {"a.tif", "a.TIFF", "a.Png"}) {
    for (const auto& [input, output] :
         std::vector<std::pair<int, int>>{{CV_8U, CV_8U}, {CV_16U, CV_16U}, {-1, CV_16U}}) {
      model.input_depth_ = input;
      EXPECT_EQ(model.OutputIntegerDepth(path), output) << path << ", input depth " << input;
    }
  }
  for (const char* path : {"a.jpg", "a.jpeg", "a.bmp", "a.tif.x", "atiff", "denoised"}) {
    for (const int input : {CV_8U, CV_16U, -1}) {
      model.input_depth_ = input;
      EXPECT_EQ(model.OutputIntegerDepth(path), CV_8U) << path;
    }
  }
}

TEST(WriteFloat, IsForFitsPathsAlone) {
  ExposedModel model;
  for (const char* path : {"a.fit", "a.FITS", "a.fts", "a.fit.gz", "a.fits.GZ", "a.fts.gz"}) {
    EXPECT_TRUE(model.WriteFloat(path)) << path;
  }
  for (const char* path : {"a.tif", "fit", "a.gz", "a.fits.bz2"}) EXPECT_FALSE(model.WriteFloat(path)) << path;
}

TEST(PrepareOutputImage, RoundsClipsAndSwapsToTheEncodersOrder) {
  ExposedModel model;
  model.input_depth_ = CV_16U;
  const float infinity = std::numeric_limits<float>::infinity();
  for (const int depth : {CV_32F, CV_64F}) {
    cv::Mat image = (cv::Mat_<float>(1, 9) << 1.2F, -0.1F, 0.5F, infinity, -infinity, 1e30F, 1.0F, 0.0F, -1e30F);
    image = image.reshape(3);
    image.convertTo(image, depth);
    const cv::Mat before = image.clone();
    const cv::Mat output = model.PrepareOutputImage("a.png", image, false);
    ASSERT_EQ(output.type(), CV_16UC3);
    EXPECT_EQ(output.at<cv::Vec3w>(0, 0), cv::Vec3w(32768, 0, 65535));
    EXPECT_EQ(output.at<cv::Vec3w>(0, 1), cv::Vec3w(65535, 0, 65535));
    EXPECT_EQ(output.at<cv::Vec3w>(0, 2), cv::Vec3w(0, 0, 65535));
    EXPECT_TRUE(SameBits(image, before)) << "the caller's image was changed";
  }
}

TEST(PrepareOutputImage, EqualsTheLibrarysConversionInRange) {
  ulmora::test::Random random;
  for (const int depth : {CV_8U, CV_16U}) {
    for (const int source : {CV_32FC3, CV_64FC3}) {
      ExposedModel model;
      model.input_depth_ = depth;
      const cv::Mat image = ulmora::test::RandomImage(random, 150, 40, source);
      cv::Mat expected;
      image.convertTo(expected, depth, depth == CV_8U ? 255.0 : 65535.0);
      cv::cvtColor(expected, expected, cv::COLOR_RGB2BGR);
      EXPECT_TRUE(SameBits(model.PrepareOutputImage("a.tif", image, false), expected));
    }
  }
}

TEST(PrepareOutputImage, BringsBackEveryStoredLevel) {
  for (const int depth : {CV_8U, CV_16U}) {
    const int levels = depth == CV_8U ? 256 : 65536;
    cv::Mat stored(1, levels, CV_32S);
    for (int i = 0; i < levels; ++i) stored.at<int>(0, i) = i;
    stored.convertTo(stored, depth);
    for (const int working : {CV_32F, CV_64F}) {
      ExposedModel model;
      model.input_depth_ = depth;
      model.grayscale_ = true;
      cv::Mat image;
      stored.convertTo(image, working, model.InputNormalizationScale(stored));
      EXPECT_TRUE(SameBits(model.PrepareOutputImage("a.png", image, false), stored));
    }
  }
}

TEST(PrepareOutputImage, FoldsAGrayscaleRunToOnePlaneForEveryWriter) {
  ExposedModel model;
  model.grayscale_ = true;
  model.input_depth_ = CV_8U;
  const cv::Mat image(4, 20, CV_32FC3, cv::Scalar::all(0.2));
  for (const char* path : {"a.png", "a.tif", "a.jpg"}) {
    const cv::Mat output = model.PrepareOutputImage(path, image, false);
    ASSERT_EQ(output.type(), CV_8UC1);
    EXPECT_EQ(output.at<std::uint8_t>(3, 19), 51);
  }
  EXPECT_EQ(model.PrepareOutputImage("a.fits", image, false).type(), CV_32FC1);
}

TEST(PrepareOutputImage, LeavesFloatsOfAFitsPathAlone) {
  ExposedModel model;
  const cv::Mat image(2, 2, CV_32FC3, cv::Scalar(1.5, -2, 3));
  EXPECT_EQ(model.PrepareOutputImage("a.fits", image, false).data, image.data);
}

TEST(PrepareOutputImage, CanHalveTheGrid) {
  ulmora::test::Random random;
  ExposedModel model;
  const cv::Mat image = ulmora::test::RandomImage(random, 6, 8, CV_32FC3, 0, 1);
  EXPECT_TRUE(SameBits(model.PrepareOutputImage("a.jpg", model.RescaleImage(image, 2.0), true),
                       model.PrepareOutputImage("a.jpg", image, false)));
}

TEST_F(Writing, EveryTiffIsLzwAndEveryEndingKeepsItsDepth) {
  const cv::Mat image(40, 50, CV_16UC3, cv::Scalar(1, 2, 60000));
  for (const char* name : {"a.tif", "a.TIFF", "b.TIF", "b.tiff"}) {
    EXPECT_EQ(Write(name, image), "Info [output]: Writing " + folder_.Path(name) +
                                      "\nInfo [output_conversion]: display-format export; depth=16 bits; normalized "
                                      "display values, not physical FITS units\n");
    EXPECT_TRUE(SameBits(Written(name), image));
    std::ifstream file(folder_.Path(name), std::ios::binary);
    const ulmora::cli::TiffDirectory directory = ulmora::cli::ReadDirectory(file, name);
    EXPECT_EQ(ulmora::cli::ReadFieldValue(file, directory, ulmora::cli::TiffTag::kCompression, 0, name), 5U);
  }
  EXPECT_THAT(Write("a.png", image), testing::HasSubstr("depth=16 bits"));
  EXPECT_TRUE(SameBits(Written("a.png"), image));
  const cv::Mat gray(40, 50, CV_8UC1, cv::Scalar(7));
  EXPECT_THAT(Write("gray.png", gray), testing::HasSubstr("depth=8 bits"));
  EXPECT_TRUE(SameBits(Written("gray.png"), gray));
}

TEST_F(Writing, FailuresNameTheFile) {
  const cv::Mat image(4, 4, CV_8UC3, cv::Scalar::all(1));
  EXPECT_EQ(ThrownText<std::invalid_argument>([&] { Write("no/such/folder/a.png", image); }),
            "Unable to write output image: " + folder_.Path("no/such/folder/a.png"));
  EXPECT_THAT(ThrownText<cv::Exception>([&] { Write("a.nothing", image); }),
              testing::HasSubstr("could not find a writer for the specified extension"));
  const ulmora::test::CapturedStream error(std::cerr);
  EXPECT_THROW(model_.WriteImage("a.pn", image, ulmora::cli::FitsOutputRole::main), std::out_of_range);
}

TEST_F(Writing, ATiffHeaderGoesIntoATiffWithItsDepthAndNowhereElse) {
  model_.astro_tiff_header_ = kHeader;
  for (const int depth : {CV_8U, CV_16U}) {
    const cv::Mat image(4, 4, CV_MAKETYPE(depth, 3), cv::Scalar::all(1));
    Write("a.tif", image);
    const std::string header = ulmora::cli::ReadAstroTiffHeader(folder_.Path("a.tif"));
    const std::string bitpix = depth == CV_8U ? "8" : "16";
    EXPECT_EQ(header, "SIMPLE  =                    T\nBITPIX  =                   " + bitpix + "\nEND");
    EXPECT_TRUE(SameBits(Written("a.tif"), image));
  }
  Write("a.png", cv::Mat(4, 4, CV_8UC1, cv::Scalar(1)));
  EXPECT_EQ(ulmora::test::ReadFile(folder_.Path("a.png")).find("SIMPLE"), std::string::npos);
}

TEST_F(Writing, AFloatTiffKeepsNoHeaderAndStays) {
  model_.astro_tiff_header_ = kHeader;
  EXPECT_EQ(ThrownText<std::invalid_argument>([&] { Write("a.tif", cv::Mat(4, 4, CV_32FC1, cv::Scalar(1))); }),
            "AstroTIFF metadata preservation requires an 8-bit or 16-bit TIFF output.");
  EXPECT_TRUE(std::filesystem::exists(folder_.Path("a.tif")));
}

TEST_F(Writing, TheProjectionIsWhatTheFileWillHold) {
  ulmora::test::Random random;
  for (const int depth : {CV_8U, CV_16U}) {
    for (const bool grayscale : {false, true}) {
      model_.input_depth_ = depth;
      model_.grayscale_ = grayscale;
      const cv::Mat image = ulmora::test::RandomImage(random, 9, 30, CV_32FC3);
      Write("a.png", model_.PrepareOutputImage("a.png", image, false));
      cv::Mat expected = Written("a.png");
      if (!grayscale) cv::cvtColor(expected, expected, cv::COLOR_BGR2RGB);
      expected.convertTo(expected, CV_64F, model_.InputNormalizationScale(expected));
      EXPECT_TRUE(SameBits(model_.ProjectMainOutput("a.png", image), expected));
    }
  }
}

}  // namespace
