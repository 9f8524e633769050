#include "tests/cli_unit/ExposedModel.h"
#include "tests/cli_unit/TiffImage.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <bit>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <limits>

namespace {

using testing::HasSubstr;
using testing::Not;
using ulmora::test::ExposedModel;
using ulmora::test::SameBits;
using ulmora::test::TiffImage;
using ulmora::test::WriteFile;

class ReadImageIn : public testing::Test {
 protected:
  /// Writes a file and reads it; the diagnostics are in said_ afterwards, also after a failure.
  cv::Mat Read(const std::string& name, bool upsample = false, bool linear = false) {
    const ulmora::test::CapturedStream error(std::cerr);
    try {
      const cv::Mat image = model_.ReadImageIn(folder_.Path(name), upsample, linear);
      said_ = error.Text();
      return image;
    } catch (...) {
      said_ = error.Text();
      throw;
    }
  }

  std::string Refusal(const std::string& name) {
    return ulmora::test::ThrownText<std::invalid_argument>([&] { Read(name); });
  }

  void Save(const std::string& name, const cv::Mat& image) const { cv::imwrite(folder_.Path(name), image); }

  void SaveTiff(const std::string& name, int samples, int bits, int sampleFormat) const {
    TiffImage image;
    image.width = 20;
    image.height = 10;
    image.samples = samples;
    image.bits = bits;
    image.photometric = samples >= 3 ? 2 : 1;
    image.sampleFormat = sampleFormat;
    image.value = [&](int x, int y, int s) {
      const auto v = static_cast<std::uint32_t>(x + 20 * y + s);
      return std::uint64_t{sampleFormat == 3 ? std::bit_cast<std::uint32_t>(static_cast<float>(v)) : v};
    };
    WriteFile(folder_.Path(name), image.Build());
  }

  ulmora::test::TemporaryFolder folder_;
  ExposedModel model_;
  std::string said_;
};

cv::Mat Noise(int type, int rows = 24, int cols = 33) {
  cv::Mat image(rows, cols, type);
  cv::randu(image, 0, CV_MAT_DEPTH(type) == CV_8U ? 256 : 65536);
  return image;
}

const char* const kUnreadable = ". Check that the file is a readable TIFF/TIF, PNG, or supported FITS image.";

TEST_F(ReadImageIn, NormalizesByTheSampleFormatAlone) {
  for (const int depth : {CV_8U, CV_16U}) {
    const cv::Mat stored = Noise(CV_MAKETYPE(depth, 3));
    const double scale = depth == CV_8U ? 1.0 / 255.0 : 1.0 / 65535.0;
    for (const char* name : {"a.png", "a.tif"}) {
      for (const bool linear : {false, true}) {
        Save(name, stored);
        cv::Mat expected;
        cv::cvtColor(stored, expected, cv::COLOR_BGR2RGB);
        expected.convertTo(expected, linear ? CV_64F : CV_32F, scale);
        EXPECT_TRUE(SameBits(Read(name, false, linear), expected)) << name;
        EXPECT_EQ(model_.input_depth_, depth);
        EXPECT_EQ(model_.input_scale_, depth == CV_8U ? 255.0 : 65535.0);
        EXPECT_FALSE(model_.grayscale_);
        EXPECT_FALSE(model_.input_is_fits_);
      }
    }
  }
}

TEST_F(ReadImageIn, AColourImageSharesItsPixelsWithTheSource) {
  Save("a.png", Noise(CV_8UC3));
  const cv::Mat image = Read("a.png");
  EXPECT_EQ(model_.source_image_.data, image.data);
  EXPECT_THAT(said_, HasSubstr("Info [input_geometry]: width=33 height=24 interpretation=RGB\n"));
}

TEST_F(ReadImageIn, AGrayImageBecomesThreePlanesWithASourceOfOne) {
  const cv::Mat stored = Noise(CV_16UC1);
  Save("a.tif", stored);
  const cv::Mat image = Read("a.tif");
  EXPECT_EQ(image.type(), CV_32FC3);
  EXPECT_EQ(model_.source_image_.type(), CV_32FC1);
  cv::Mat back;
  model_.source_image_.convertTo(back, CV_16U, 65535.0);
  EXPECT_TRUE(SameBits(back, stored));
  EXPECT_TRUE(model_.grayscale_);
  EXPECT_THAT(said_, HasSubstr("Info [input_geometry]: width=33 height=24 interpretation=grayscale\n"));
}

TEST_F(ReadImageIn, EqualPlanesCountAsGrayscaleUntilOneSampleDiffers) {
  const cv::Mat plane = Noise(CV_8UC1, 200, 30);
  cv::Mat equal;
  cv::merge(std::vector<cv::Mat>(3, plane), equal);
  Save("equal.png", equal);
  EXPECT_EQ(Read("equal.png").type(), CV_32FC3);
  EXPECT_TRUE(model_.grayscale_);
  EXPECT_EQ(model_.source_image_.channels(), 1);
  for (const int channel : {0, 1, 2}) {
    cv::Mat different = equal.clone();
    different.ptr<std::uint8_t>(199, 29)[channel] ^= 1;
    Save("different.png", different);
    Read("different.png");
    EXPECT_FALSE(model_.grayscale_) << "channel " << channel;
  }
}

TEST_F(ReadImageIn, ReportsInOrderAndNumbersRedFirst) {
  cv::Mat stored(10, 20, CV_8UC3, cv::Scalar(30, 20, 10));  // B, G, R
  stored.at<cv::Vec3b>(0, 0) = {51, 102, 255};
  Save("a.png", stored);
  Read("a.png");
  const auto range = [](int low, int high, const char* lowScaled, const char* highScaled, int samples) {
    return "scalar_samples=" + std::to_string(samples) + " finite=" + std::to_string(samples) +
           " nonfinite=0 physical_range=[" + std::to_string(low) + "," + std::to_string(high) +
           "] type_normalized_range=[" + lowScaled + "," + highScaled + "] below_zero=0 (0%) above_one=0 (0%)\n";
  };
  const char* ten = "0.039215686274509803";
  EXPECT_EQ(said_, "Info [input]: Reading " + folder_.Path("a.png") +
                       "\nInfo [input_format]: format=PNG stored=uint8 width=20 height=10 channels=3\n"
                       "Info [input_range]: " +
                       range(10, 255, ten, "1", 600) + "Info [channel_range]: channel=1 " +
                       range(10, 255, ten, "1", 200) + "Info [channel_range]: channel=2 " +
                       range(20, 102, "0.078431372549019607", "0.40000000000000002", 200) +
                       "Info [channel_range]: channel=3 " +
                       range(30, 51, "0.11764705882352941", "0.20000000000000001", 200) +
                       "Info [input_conversion]: fixed divisor K=255; offset=0; linear=0; no observed-range rescaling; "
                       "inference=float32 (no MTF)\n"
                       "Info [input_geometry]: width=20 height=10 interpretation=RGB\n");
}

TEST_F(ReadImageIn, SaysWhatALinearRunDoes) {
  Save("a.png", Noise(CV_16UC1));
  Read("a.png", false, true);
  EXPECT_THAT(said_, HasSubstr("Info [input_conversion]: fixed divisor K=65535; offset=0; linear=1; no observed-range "
                               "rescaling; MTF/inverse=float64; inference=float32\n"));
}

TEST_F(ReadImageIn, IsSilentWhenQuietAndSpeaksJsonToPrograms) {
  Save("a.png", Noise(CV_8UC3));
  model_.quiet_ = true;
  Read("a.png");
  EXPECT_EQ(said_, "");
  model_.quiet_ = false;
  model_.machine_progress_ = true;
  Read("a.png");
  EXPECT_THAT(said_, testing::StartsWith("{\"schema\":\"quorvanthine.cli.diagnostic.v1\",\"severity\":\"info\","
                                         "\"code\":\"input\",\"message\":\"Reading "));
  EXPECT_THAT(said_, Not(HasSubstr("Info [")));
}

TEST_F(ReadImageIn, AnAlphaPlaneIsReportedThenRefused) {
  Save("a.png", Noise(CV_8UC4));
  EXPECT_EQ(Refusal("a.png"), "Unsupported number of image channels: 4");
  EXPECT_THAT(said_, HasSubstr("format=PNG stored=uint8 width=33 height=24 channels=4\n"));
  for (const char* line : {"channel=1 ", "channel=2 ", "channel=3 ", "channel=4 "}) EXPECT_THAT(said_, HasSubstr(line));
  EXPECT_THAT(said_, HasSubstr("[input_conversion]"));
  EXPECT_THAT(said_, Not(HasSubstr("[input_geometry]")));
}

TEST_F(ReadImageIn, AGrayImageWithAlphaIsRefusedForItsTwoChannels) {
  SaveTiff("a.tif", 2, 16, 1);
  EXPECT_EQ(Refusal("a.tif"), "Unsupported number of image channels: 2");
  EXPECT_THAT(said_, HasSubstr("format=TIFF stored=uint16 width=20 height=10 channels=2\n"));
  EXPECT_THAT(said_, HasSubstr("channel=2 scalar_samples=200 finite=200 nonfinite=0 physical_range=[1,200] "));
}

TEST_F(ReadImageIn, OtherDepthsAreReportedThenRefusedAfterTheChannels) {
  const std::string depth = "Unsupported image bit depth. Only 8-bit and 16-bit integer inputs are supported.";
  SaveTiff("float3.tif", 3, 32, 3);
  EXPECT_EQ(Refusal("float3.tif"), depth);
  EXPECT_THAT(said_, HasSubstr("stored=float32 width=20 height=10 channels=3\n"));
  EXPECT_THAT(said_, HasSubstr("fixed divisor K=1; "));
  EXPECT_THAT(said_, HasSubstr("channel=1 scalar_samples=200 finite=200 nonfinite=0 physical_range=[0,199] "
                               "type_normalized_range=[0,199] below_zero=0 (0%) above_one=198 (99%)\n"));
  SaveTiff("float4.tif", 4, 32, 3);
  EXPECT_EQ(Refusal("float4.tif"), "Unsupported number of image channels: 4");
  SaveTiff("signed.tif", 1, 16, 2);
  EXPECT_EQ(Refusal("signed.tif"), depth);
  EXPECT_THAT(said_, HasSubstr("stored=int16 "));
  SaveTiff("signed8.tif", 1, 8, 2);
  EXPECT_EQ(Refusal("signed8.tif"), depth);
  EXPECT_THAT(said_, HasSubstr("stored=int8 "));
  SaveTiff("signed32.tif", 1, 32, 2);
  EXPECT_EQ(Refusal("signed32.tif"), depth);
  EXPECT_THAT(said_, HasSubstr("stored=int32 "));
}

TEST_F(ReadImageIn, RefusesPathsThatAreNoFiles) {
  EXPECT_EQ(Refusal("missing.tif"), "Input image does not exist: " + folder_.Path("missing.tif"));
  EXPECT_EQ(said_, "Info [input]: Reading " + folder_.Path("missing.tif") + "\n");
  std::filesystem::create_directory(folder_.Path("folder.png"));
  EXPECT_EQ(Refusal("folder.png"), "Input path is not a regular file: " + folder_.Path("folder.png"));
  const std::string unaskable = std::string(300, 'x') + ".png";
  EXPECT_EQ(Refusal(unaskable), "Input image does not exist: " + folder_.Path(unaskable));
}

TEST_F(ReadImageIn, RefusesFilesThatAreNoImages) {
  WriteFile(folder_.Path("a.png"), "no image at all");
  EXPECT_EQ(Refusal("a.png"), "Unable to read input image: " + folder_.Path("a.png") + kUnreadable);
  EXPECT_EQ(model_.input_depth_, -1);
  WriteFile(folder_.Path("b.tif"), "");
  EXPECT_EQ(Refusal("b.tif"), "Unable to read input image: " + folder_.Path("b.tif") + kUnreadable);
  EXPECT_THAT(said_, Not(HasSubstr("AstroTIFF")));  // its header is not looked for
}

TEST_F(ReadImageIn, GoesByContentForTheFormatAndByNameForTheHeader) {
  cv::imwrite(folder_.Path("real.png"), Noise(CV_8UC3));
  std::filesystem::rename(folder_.Path("real.png"), folder_.Path("named.tif"));
  Read("named.tif");
  EXPECT_THAT(said_, HasSubstr("format=PNG "));
  EXPECT_THAT(said_, HasSubstr("Warning [output_fidelity]: Unable to inspect AstroTIFF metadata; continuing without "
                               "preservation. Invalid TIFF byte order in " +
                               folder_.Path("named.tif") + "\n"));
  EXPECT_EQ(model_.astro_tiff_header_, "");
}

TEST_F(ReadImageIn, NamesFormatsByTheirFirstBytes) {
  for (const auto& [name, format] : std::vector<std::pair<std::string, std::string>>{
           {"a.tif", "TIFF"}, {"a.jpg", "JPEG"}, {"a.bmp", "BMP"}, {"a.ppm", "OpenCV (format unclassified)"}}) {
    Save(name, Noise(CV_8UC3));
    Read(name);
    EXPECT_THAT(said_, HasSubstr("Info [input_format]: format=" + format + " stored=uint8 "));
  }
  TiffImage image;
  image.form = {false, true};
  image.width = image.height = 9;
  image.value = [](int x, int, int) { return static_cast<std::uint64_t>(x); };
  WriteFile(folder_.Path("big.tif"), image.Build());
  Read("big.tif");
  EXPECT_THAT(said_, HasSubstr("format=TIFF stored=uint16 "));
}

TEST_F(ReadImageIn, KeepsTheHeaderOfATiffUntilTheNextRead) {
  const std::string header = "SIMPLE  =                    T\nBITPIX  =                   16\nEND";
  ulmora::test::TiffBytes file({true, false});
  const std::uint64_t data = file.Here();
  file.Bytes(std::string(16 * 16 * 2, '\x11'));
  file.Numbers(256, 4, 4, {16}).Numbers(257, 4, 4, {16}).Numbers(258, 3, 2, {16}).Numbers(259, 3, 2, {1});
  file.Numbers(262, 3, 2, {1}).Ascii(270, header + '\0').Numbers(273, 4, 4, {data}).Numbers(277, 3, 2, {1});
  file.Numbers(278, 4, 4, {16}).Numbers(279, 4, 4, {512});
  WriteFile(folder_.Path("a.tif"), file.Build());
  Read("a.tif");
  EXPECT_EQ(model_.astro_tiff_header_, header);
  Save("a.png", Noise(CV_8UC1));
  Read("a.png");
  EXPECT_EQ(model_.astro_tiff_header_, "");
}

TEST_F(ReadImageIn, UpsamplesOntoADoubledGridAndKeepsTheSource) {
  Save("a.png", Noise(CV_8UC3));
  const cv::Mat plain = Read("a.png");
  const cv::Mat doubled = Read("a.png", true);
  EXPECT_EQ(doubled.size(), plain.size() * 2);
  EXPECT_EQ(model_.source_image_.size(), plain.size());
  EXPECT_TRUE(SameBits(model_.RescaleImage(doubled, 0.5), plain));
  EXPECT_THAT(said_, testing::EndsWith("Info [intermediate_sampling]: 2x grid-aligned cubic upsampling; output selects "
                                       "original grid samples without averaging\n"));
}

TEST(InputNormalizationScale, IsTheReciprocalToTheLastBit) {
  ExposedModel model;
  const auto bits = [&](int type) {
    return std::bit_cast<std::uint64_t>(model.InputNormalizationScale(cv::Mat(1, 1, type)));
  };
  EXPECT_EQ(bits(CV_8UC1), 0x3F70101010101010U);
  EXPECT_EQ(bits(CV_16UC3), 0x3EF0001000100010U);
  for (const int depth : {CV_8S, CV_16S, CV_32S, CV_32F, CV_64F}) {
    EXPECT_EQ(ulmora::test::ThrownText<std::invalid_argument>([&] { bits(depth); }),
              "Unsupported image bit depth. Only 8-bit and 16-bit integer inputs are supported.");
  }
}

TEST(IsGrayscale, KnowsFloatsChannelsAndNaN) {
  ExposedModel model;
  EXPECT_TRUE(model.IsGrayscale(cv::Mat(3, 3, CV_64FC1, cv::Scalar(NAN))));
  cv::Mat image(100, 3, CV_32FC3, cv::Scalar::all(0.25));
  EXPECT_TRUE(model.IsGrayscale(image));
  image.at<cv::Vec3f>(99, 2)[1] = std::nextafter(0.25F, 1.0F);
  EXPECT_FALSE(model.IsGrayscale(image));
  image.at<cv::Vec3f>(99, 2) = cv::Vec3f::all(NAN);
  EXPECT_FALSE(model.IsGrayscale(image));
  for (const int channels : {2, 4, 5}) {
    const cv::Mat other(2, 2, CV_MAKETYPE(CV_8U, channels), cv::Scalar::all(0));
    EXPECT_EQ(ulmora::test::ThrownText<std::invalid_argument>([&] { static_cast<void>(model.IsGrayscale(other)); }),
              "Unsupported number of image channels: " + std::to_string(channels));
  }
}

}  // namespace
