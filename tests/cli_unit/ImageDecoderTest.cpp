#include "cli/ImageDecoder.h"
#include "cli/TiffSamples.h"
#include "tests/cli_unit/TiffImage.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <bit>
#include <utility>
#include <vector>

namespace ulmora::cli {
namespace {

using test::TiffImage;

/// Bits that differ in every sample, fill their width, and wrap round when differences are taken.
std::uint64_t Pattern(int x, int y, int sample) {
  return static_cast<std::uint64_t>(x * 7919 + y * 104729 + sample * 31337 + 5) * 2654435761U;
}

class ImageDecoder : public testing::Test {
 protected:
  [[nodiscard]] cv::Mat Decode(const TiffImage& image) const {
    test::WriteFile(folder_.Path("image.tif"), image.Build());
    return DecodeImage(folder_.Path("image.tif"));
  }
  [[nodiscard]] TiffReading Reading(const TiffImage& image) const {
    test::WriteFile(folder_.Path("image.tif"), image.Build());
    return HowToRead(InspectTiff(folder_.Path("image.tif")).value());
  }

  test::TemporaryFolder folder_;
};

TiffImage Image(int samples, int bits, int photometric, bool separatePlanes) {
  TiffImage image;
  image.width = 37;
  image.height = 23;
  image.samples = samples;
  image.bits = bits;
  image.photometric = photometric;
  image.separatePlanes = separatePlanes;
  image.value = Pattern;
  return image;
}

/// The stored samples of an integer image in the decoder's channel order.
cv::Mat Truth(const TiffImage& image) {
  cv::Mat truth(image.height, image.width, CV_MAKETYPE(image.bits == 8 ? CV_8U : CV_16U, image.samples));
  for (int y = 0; y < image.height; ++y) {
    for (int x = 0; x < image.width; ++x) {
      for (int s = 0; s < image.samples; ++s) {
        const int channel = image.samples >= 3 && s < 3 ? 2 - s : s;
        if (image.bits == 8) {
          truth.ptr<std::uint8_t>(y, x)[channel] = static_cast<std::uint8_t>(image.value(x, y, s));
        } else {
          truth.ptr<std::uint16_t>(y, x)[channel] = static_cast<std::uint16_t>(image.value(x, y, s));
        }
      }
    }
  }
  return truth;
}

TEST_F(ImageDecoder, ReadsSeparatePlanesOfEveryForm) {
  for (const test::TiffForm form : {test::TiffForm{true, false}, {false, false}, {true, true}, {false, true}}) {
    for (const int bits : {8, 16}) {
      for (const int samples : {3, 4}) {
        TiffImage image = Image(samples, bits, 2, true);
        image.form = form;
        // With unassociated alpha the library multiplies 8-bit colours by it; such files are refused for the alpha.
        if (bits == 8 && samples == 4) continue;
        EXPECT_TRUE(test::SameBits(Decode(image), Truth(image))) << bits << " bits, " << samples << " samples";
      }
    }
  }
}

TEST_F(ImageDecoder, ReadsSeparatePlanesInTilesAndAsDifferences) {
  for (const int tileSide : {0, 16, 32}) {
    for (const bool differences : {false, true}) {
      TiffImage image = Image(3, 16, 2, true);
      image.tileSide = tileSide;
      image.differences = differences;
      EXPECT_TRUE(test::SameBits(Decode(image), Truth(image))) << "tiles of " << tileSide;
    }
  }
}

TEST_F(ImageDecoder, AppliesTheOrientationOfSeparatePlanesAsOfOthers) {
  TiffImage image = Image(3, 16, 2, true);
  image.orientation = 3;
  cv::Mat turned;
  cv::rotate(Truth(image), turned, cv::ROTATE_180);
  EXPECT_TRUE(test::SameBits(Decode(image), turned));
}

TEST_F(ImageDecoder, ReadsFloatPlanesSoThatTheyAreRefusedForWhatTheyAre) {
  TiffImage image = Image(3, 32, 2, true);
  image.sampleFormat = 3;
  image.value = [](int x, int y, int s) {
    return std::bit_cast<std::uint32_t>(static_cast<float>(x) + 100.0F * static_cast<float>(y) -
                                        0.5F * static_cast<float>(s));
  };
  const cv::Mat decoded = Decode(image);
  ASSERT_EQ(decoded.type(), CV_32FC3);
  EXPECT_EQ(decoded.at<cv::Vec3f>(22, 36), cv::Vec3f(2235.0F, 2235.5F, 2236.0F));
}

TEST_F(ImageDecoder, InvertsSixteenBitLevelsWhoseZeroIsWhite) {
  TiffImage image = Image(1, 16, 0, false);
  cv::Mat expected;
  cv::bitwise_not(Truth(image), expected);
  EXPECT_TRUE(test::SameBits(Decode(image), expected));
  image.bits = 8;  // which the library inverts itself
  cv::bitwise_not(Truth(image), expected);
  EXPECT_TRUE(test::SameBits(Decode(image), expected));
}

TEST_F(ImageDecoder, ShowsBothSamplesOfGrayAndAlpha) {
  for (const int photometric : {0, 1}) {
    for (const int bits : {8, 16}) {
      for (const bool separatePlanes : {false, true}) {
        for (const int tileSide : {0, 32}) {
          for (const bool differences : {false, true}) {
            TiffImage image = Image(2, bits, photometric, separatePlanes);
            image.tileSide = tileSide;
            image.differences = differences;
            EXPECT_TRUE(test::SameBits(Decode(image), Truth(image)))
                << bits << " bits, planes " << separatePlanes << ", tiles of " << tileSide << ", differences "
                << differences;
          }
        }
      }
    }
  }
}

TEST_F(ImageDecoder, ReadsColoursThatAreNotCalledColours) {
  for (const int bits : {8, 16}) {
    for (const bool separatePlanes : {false, true}) {
      for (const bool differences : {false, true}) {
        TiffImage image = Image(3, bits, 1, separatePlanes);
        image.differences = differences;
        EXPECT_TRUE(test::SameBits(Decode(image), Truth(image))) << bits << " bits, planes " << separatePlanes;
      }
    }
  }
}

TEST_F(ImageDecoder, NeedsNoSoundDescription) {
  cv::Mat inverted;
  cv::bitwise_not(Truth(Image(1, 16, 0, false)), inverted);
  const std::vector<std::pair<TiffImage, cv::Mat>> cases = {
      {Image(3, 16, 2, true), Truth(Image(3, 16, 2, true))},
      {Image(2, 16, 1, false), Truth(Image(2, 16, 1, false))},
      {Image(1, 16, 0, false), inverted},
  };
  for (auto [image, expected] : cases) {
    image.damagedDescription = true;
    EXPECT_TRUE(test::SameBits(Decode(image), expected)) << image.samples << " samples";
  }
}

TEST_F(ImageDecoder, NeedsNothingBehindTheEntries) {
  const TiffImage image = Image(3, 16, 2, true);
  const std::string whole = image.Build();
  test::WriteFile(folder_.Path("cut.tif"), whole.substr(0, whole.size() - 4));
  EXPECT_TRUE(test::SameBits(DecodeImage(folder_.Path("cut.tif")), Truth(image)));
}

TEST_F(ImageDecoder, TakesThreeSamplesOfColourForGranted) {
  for (const int bits : {8, 16}) {
    for (const bool separatePlanes : {false, true}) {
      TiffImage image = Image(3, bits, 2, separatePlanes);
      image.countsSamples = false;
      EXPECT_TRUE(test::SameBits(Decode(image), Truth(image))) << bits << " bits, planes " << separatePlanes;
    }
  }
}

TEST_F(ImageDecoder, RefusesSidesThatWouldBeCutTo32Bits) {
  TiffImage wide = Image(3, 16, 2, true);
  wide.form = {true, true};
  wide.claimedWidth = (std::uint64_t{1} << 32) + 37;
  EXPECT_TRUE(Decode(wide).empty());
  // Rows of three planes that wrap round to as many strips as there are.
  TiffImage high = Image(3, 16, 2, true);
  high.form = {true, true};
  high.height = 1;
  high.rowsPerStrip = 1;
  high.claimedHeight = 0x5555555555555556;
  EXPECT_TRUE(Decode(high).empty());
}

TEST_F(ImageDecoder, RefusesATiffWhoseFieldsCannotBeRead) {
  TiffImage image = Image(3, 16, 2, true);
  std::string bytes = image.Build();
  // The count of the bits' values is made to lie: three numbers become more than the file holds.
  const std::size_t field = bytes.find(std::string("\x02\x01\x03\x00\x03\x00\x00\x00", 8));
  ASSERT_NE(field, std::string::npos);
  bytes[field + 7] = '\x10';
  test::WriteFile(folder_.Path("lying.tif"), bytes);
  EXPECT_TRUE(DecodeImage(folder_.Path("lying.tif")).empty());
}

TEST_F(ImageDecoder, LeavesOrdinaryLayoutsToTheLibrary) {
  for (const int bits : {8, 16}) {
    EXPECT_EQ(Reading(Image(1, bits, 1, false)), TiffReading::Plain);
    EXPECT_EQ(Reading(Image(3, bits, 2, false)), TiffReading::Plain);
    EXPECT_EQ(Reading(Image(4, bits, 2, false)), TiffReading::Plain);
    EXPECT_TRUE(test::SameBits(Decode(Image(3, bits, 2, false)), Truth(Image(3, bits, 2, false))));
    EXPECT_TRUE(test::SameBits(Decode(Image(1, bits, 1, false)), Truth(Image(1, bits, 1, false))));
  }
}

TEST_F(ImageDecoder, RefusesWhatWouldLoseBitsInSilence) {
  // Lab in 16 bits would come out as 8-bit colours; three samples of inverted gray have no meaning that we know.
  for (const TiffImage& image : {Image(3, 16, 8, false), Image(3, 16, 0, false), Image(3, 16, 6, false)}) {
    EXPECT_EQ(Reading(image), TiffReading::Refused);
    EXPECT_TRUE(Decode(image).empty());
  }
}

TEST_F(ImageDecoder, RefusesPlanesThatAreNotThere) {
  const std::string whole = Image(3, 16, 2, true).Build();
  TiffImage shortOfStrips = Image(3, 16, 2, true);
  shortOfStrips.rowsPerStrip = 5;
  std::string damaged = shortOfStrips.Build();
  // Rows per strip changed after the fact: the strips no longer add up to three planes.
  const std::size_t field = damaged.find(std::string("\x16\x01\x04\x00\x01\x00\x00\x00\x05", 9));
  ASSERT_NE(field, std::string::npos);
  damaged[field + 8] = '\x06';
  test::WriteFile(folder_.Path("damaged.tif"), damaged);
  EXPECT_TRUE(DecodeImage(folder_.Path("damaged.tif")).empty());
  // Cut in the data: the directory, which stands at the end, is gone.
  test::WriteFile(folder_.Path("cut.tif"), whole.substr(0, whole.size() / 2));
  EXPECT_TRUE(DecodeImage(folder_.Path("cut.tif")).empty());
}

TEST_F(ImageDecoder, RefusesStripsThatAddUpToMoreThanTheFile) {
  TiffImage image = Image(3, 16, 2, true);
  image.rowsPerStrip = 1;
  std::string bytes = image.Build();
  // All strips claim 2000 bytes from the file's beginning on: inside the file each, but not together.
  const std::uint64_t chunks = 69;
  const std::size_t counts = bytes.find(std::string("\x4a\x00\x00\x00\x4a\x00\x00\x00", 8));
  ASSERT_NE(counts, std::string::npos);
  const test::TiffBytes numbers(image.form);
  for (std::uint64_t i = 0; i < chunks; ++i) bytes.replace(counts + 4 * i, 4, numbers.Number(2000, 4));
  test::WriteFile(folder_.Path("image.tif"), bytes);
  EXPECT_TRUE(DecodeImage(folder_.Path("image.tif")).empty());
}

TEST_F(ImageDecoder, GivesNothingForWhatIsNoImage) {
  test::WriteFile(folder_.Path("text.tif"), "this is not an image, whatever it is called");
  test::WriteFile(folder_.Path("empty.png"), "");
  EXPECT_TRUE(DecodeImage(folder_.Path("text.tif")).empty());
  EXPECT_TRUE(DecodeImage(folder_.Path("empty.png")).empty());
  EXPECT_TRUE(DecodeImage(folder_.Path("missing.png")).empty());
}

TEST_F(ImageDecoder, SaysInOneLineThatAnImageIsTooLarge) {
  // A BMP header alone is enough: the size is checked before any pixel.
  const test::TiffBytes little({true, false});
  std::string header = "BM" + little.Number(54, 4) + little.Number(0, 4) + little.Number(54, 4);
  header += little.Number(40, 4) + little.Number(2000000, 4) + little.Number(10, 4) + little.Number(1, 2) +
            little.Number(24, 2) + std::string(24, '\0');
  test::WriteFile(folder_.Path("wide.bmp"), header);
  const std::string text =
      test::ThrownText<std::invalid_argument>([&] { static_cast<void>(DecodeImage(folder_.Path("wide.bmp"))); });
  EXPECT_EQ(text.find("Input image is too large to decode: " + folder_.Path("wide.bmp") + ". "), 0U) << text;
  EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST_F(ImageDecoder, KeepsTheLibrarysLinesOffStandardError) {
  cv::Mat image(64, 64, CV_8UC3, cv::Scalar(1, 2, 3));
  cv::imwrite(folder_.Path("image.png"), image);
  const std::string whole = test::ReadFile(folder_.Path("image.png"));
  test::WriteFile(folder_.Path("cut.png"), whole.substr(0, whole.size() - 30));
  testing::internal::CaptureStderr();
  static_cast<void>(DecodeImage(folder_.Path("cut.png")));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace ulmora::cli
