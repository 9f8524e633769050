#include "cli/FitsReader.h"
#include "cli/FitsTiles.h"
#include "cli/TileStreams.h"
#include "tests/cli_unit/FitsTesting.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <vector>
#include <zlib.h>

namespace ulmora::cli {
namespace {

constexpr long kColumns = 70;
constexpr long kRows = 5;

/// Noise of this width around its middle, as whole numbers.
std::vector<double> Noise(double width, std::size_t count) {
  std::mt19937 generator(7);
  std::vector<double> samples(count);
  for (double& sample : samples) {
    sample = 100.0 + static_cast<double>(generator() % (static_cast<unsigned>(width) + 1));
  }
  return samples;
}

class FitsTiles : public testing::Test {
 protected:
  /// A file whose second HDU is tile-compressed, one row a tile.
  void Write(int coding, int bitpix, double width) {
    samples_ = Noise(width, kColumns * kRows);
    int status = 0;
    fitsfile* file = nullptr;
    std::filesystem::remove(path_);
    fits_create_diskfile(&file, path_.c_str(), &status);
    std::vector<long> tile = {kColumns, coding == HCOMPRESS_1 ? kRows : 1};
    fits_set_compression_type(file, coding, &status);
    fits_set_tile_dim(file, 2, tile.data(), &status);
    std::vector<long> axes = {kColumns, kRows};
    fits_create_img(file, bitpix, 2, axes.data(), &status);
    // Compressed images take samples of exactly their own type.
    if (bitpix == BYTE_IMG) WriteSamples<std::uint8_t>(file, TBYTE, status);
    if (bitpix == SHORT_IMG) WriteSamples<std::int16_t>(file, TSHORT, status);
    if (bitpix == LONG_IMG) WriteSamples<std::int32_t>(file, TINT, status);
    fits_close_file(file, &status);
    test::Require(status);
  }

  template <typename T>
  void WriteSamples(fitsfile* file, int type, int& status) {
    std::vector<T> whole(samples_.begin(), samples_.end());
    std::vector<long> first = {1, 1};
    fits_write_pix(file, type, first.data(), kColumns * kRows, whole.data(), &status);
  }

  /// The stored stream of a tile.
  template <typename T>
  std::vector<T> Stream(int type, LONGLONG row) {
    FitsHandle handle(path_, READONLY);
    int status = 0;
    int column = 0;
    LONGLONG length = 0;
    LONGLONG offset = 0;
    std::string name = "COMPRESSED_DATA";
    fits_get_colnum(handle.file, CASEINSEN, name.data(), &column, &status);
    fits_read_descriptll(handle.file, column, row, &length, &offset, &status);
    std::vector<T> stream(static_cast<std::size_t>(length));
    fits_read_col(handle.file, type, column, row, 1, length, nullptr, stream.data(), nullptr, &status);
    test::Require(status);
    return stream;
  }

  /// Writes `bytes` over the file from where the stream of the last tile stands, `skip` bytes into it.
  void Damage(const std::vector<std::uint8_t>& stream, std::size_t skip, std::uint8_t value) {
    std::fstream file(path_, std::ios::binary | std::ios::in | std::ios::out);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    const std::size_t start = all.find(std::string(stream.begin(), stream.end()));
    ASSERT_NE(start, std::string::npos);
    file.seekp(static_cast<std::streamoff>(start + skip));
    const std::string filling(stream.size() - skip, static_cast<char>(value));
    file.write(filling.data(), static_cast<std::streamsize>(filling.size()));
  }

  /// Replaces the value of a card.
  void Set(const std::string& keyword, const std::string& value) {
    std::fstream file(path_, std::ios::binary | std::ios::in | std::ios::out);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    const std::string name = (keyword + std::string(8, ' ')).substr(0, 8) + "= ";
    const std::size_t start = all.find(name);
    ASSERT_NE(start, std::string::npos);
    const std::string card = (name + value + std::string(80, ' ')).substr(0, 80);
    file.seekp(static_cast<std::streamoff>(start));
    file.write(card.data(), static_cast<std::streamsize>(card.size()));
  }

  /// The same file, deflated.
  void Deflate() {
    std::ifstream file(path_, std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(file), {}};
    path_ += ".gz";
    gzFile deflated = gzopen(path_.c_str(), "wb");
    gzwrite(deflated, all.data(), static_cast<unsigned>(all.size()));
    gzclose(deflated);
  }

  std::vector<double> Read() {
    std::ostringstream spoken;
    return ReadFitsImageWithMetadata(path_, true, {false, false, &spoken}).metadata.physicalSamples;
  }

  std::string Failure() {
    try {
      Read();
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "";
  }

  /// An open file on its second HDU.
  struct FitsHandle {
    FitsHandle(const std::string& path, int mode) {
      int status = 0;
      fits_open_diskfile(&file, path.c_str(), mode, &status);
      fits_movabs_hdu(file, 2, nullptr, &status);
      test::Require(status);
    }
    ~FitsHandle() {
      int status = 0;
      fits_close_file(file, &status);
    }
    FitsHandle(const FitsHandle&) = delete;
    FitsHandle& operator=(const FitsHandle&) = delete;
    fitsfile* file = nullptr;
  };

  test::TemporaryFolder folder_;
  std::string path_ = folder_.Path("tiles.fits");
  std::vector<double> samples_;
};

/// The library divides by these sizes as soon as it meets the HDU.
TEST_F(FitsTiles, TakesTheTwoNumbersOfRiceInEitherOrder) {
  Write(RICE_1, SHORT_IMG, 100);
  Set("ZNAME1", "'BYTEPIX '");
  Set("ZVAL1", "                   2");
  Set("ZNAME2", "'BLOCKSIZE'");
  Set("ZVAL2", "                  32");
  EXPECT_EQ(Read(), samples_);
}

TEST_F(FitsTiles, TilesOfNoPixelsAreRefused) {
  for (const std::string value :
       {"0", "-1", "0.5", "1D-3", "'0'", "-9223372036854775808", "inf", "0x10", "none 20", ""}) {
    Write(RICE_1, SHORT_IMG, 40);
    Set("ZTILE2", value);
    EXPECT_EQ(Failure(), "Inspecting HDUs failed for FITS image " + path_ + ": error uncompressing image") << value;
  }
}

TEST_F(FitsTiles, RiceBlocksOfNoPixelsAreRefused) {
  for (const std::string value : {"0", "-32", "many"}) {
    Write(RICE_1, SHORT_IMG, 40);
    Set("ZVAL1", value);
    EXPECT_EQ(Failure(), "Inspecting HDUs failed for FITS image " + path_ + ": error uncompressing image") << value;
  }
}

/// There the same card is a scale, and 0 means exact.
TEST_F(FitsTiles, AnHcompressScaleOfZeroIsRead) {
  Write(HCOMPRESS_1, SHORT_IMG, 40);
  Set("ZVAL1", "0");
  EXPECT_EQ(Read(), samples_);
}

/// A header's last block may be cut short.
TEST_F(FitsTiles, TilesOfNoPixelsAreRefusedInATruncatedFile) {
  Write(RICE_1, SHORT_IMG, 40);
  Set("ZTILE2", "0");
  std::ifstream file(path_, std::ios::binary);
  const std::string all{std::istreambuf_iterator<char>(file), {}};
  const std::size_t end = all.find("END" + std::string(77, ' '), all.find("ZTILE2"));
  ASSERT_NE(end, std::string::npos);
  std::filesystem::resize_file(path_, end + 80);
  EXPECT_EQ(Failure(), "Inspecting HDUs failed for FITS image " + path_ + ": error uncompressing image");
}

TEST_F(FitsTiles, TilesOfNoPixelsAreRefusedInADeflatedFile) {
  Write(RICE_1, SHORT_IMG, 40);
  Set("ZTILE1", "0");
  Deflate();
  EXPECT_EQ(Failure(), "Inspecting HDUs failed for FITS image " + path_ + ": error uncompressing image");
}

TEST_F(FitsTiles, ADeflatedFileReadsAsItWasWritten) {
  Write(RICE_1, SHORT_IMG, 40);
  Deflate();
  EXPECT_EQ(Read(), samples_);
}

TEST_F(FitsTiles, EveryCodingReadsAsItWasWritten) {
  for (const int coding : {RICE_1, GZIP_1, GZIP_2, PLIO_1, HCOMPRESS_1}) {
    Write(coding, SHORT_IMG, 40);
    EXPECT_EQ(Read(), samples_) << "coding " << coding;
  }
}

/// The library's own encoder wastes less than a byte, so a whole stream has no byte too many.
TEST_F(FitsTiles, ARiceStreamNeedsEachOfItsBytes) {
  struct Kind {
    int bitpix;
    int bytes;
    double width;
  };
  // Widths that give flat, unary and raw blocks.
  for (const Kind kind :
       {Kind{BYTE_IMG, 1, 0}, Kind{BYTE_IMG, 1, 20}, Kind{BYTE_IMG, 1, 155}, Kind{SHORT_IMG, 2, 0},
        Kind{SHORT_IMG, 2, 300}, Kind{SHORT_IMG, 2, 32000}, Kind{LONG_IMG, 4, 5}, Kind{LONG_IMG, 4, 2e9}}) {
    Write(RICE_1, kind.bitpix, kind.width);
    const auto stream = Stream<std::uint8_t>(TBYTE, 2);
    const std::span<const std::uint8_t> bytes(stream);
    const RiceFormat format{kind.bytes, 32};
    EXPECT_TRUE(HoldsRicePixels(bytes, kColumns, format)) << kind.bitpix << ' ' << kind.width;
    EXPECT_FALSE(HoldsRicePixels(bytes, kColumns + 320, format)) << kind.bitpix << ' ' << kind.width;
    for (std::size_t length = 0; length < stream.size(); ++length) {
      EXPECT_FALSE(HoldsRicePixels(bytes.first(length), kColumns, format)) << length << " of " << stream.size();
    }
  }
}

TEST(HoldsRicePixels, RefusesFormatsThatDoNotExist) {
  const std::vector<std::uint8_t> zeros(64);
  EXPECT_TRUE(HoldsRicePixels(zeros, 32, {4, 32}));
  EXPECT_FALSE(HoldsRicePixels(zeros, 32, {8, 32}));
  EXPECT_FALSE(HoldsRicePixels(zeros, 32, {3, 32}));
  EXPECT_FALSE(HoldsRicePixels(zeros, 32, {4, 0}));
}

TEST(HoldsRicePixels, RefusesCodesBeyondRaw) {
  // The highest code of each width; that of bytes and of shorts is the one for raw differences.
  const std::vector<std::uint8_t> ones(64, 0xFF);
  EXPECT_TRUE(HoldsRicePixels(ones, 8, {1, 32}));
  EXPECT_TRUE(HoldsRicePixels(ones, 8, {2, 32}));
  EXPECT_FALSE(HoldsRicePixels(ones, 8, {4, 32}));
}

TEST_F(FitsTiles, AStreamOfZerosThatNeverEndsIsRefused) {
  Write(RICE_1, SHORT_IMG, 300);
  const auto stream = Stream<std::uint8_t>(TBYTE, kRows);
  Damage(stream, 3, 0);
  EXPECT_EQ(Failure(), "Reading double-precision physical pixels failed for FITS image " + path_ + ": " +
                           "error uncompressing image");
}

TEST_F(FitsTiles, APixelListNeedsWhatItAnnounces) {
  Write(PLIO_1, SHORT_IMG, 40);
  const auto list = Stream<std::int16_t>(TSHORT, 1);
  const std::span<const std::int16_t> words(list);
  EXPECT_TRUE(HoldsPixelListInstructions(words));
  EXPECT_TRUE(HoldsPixelListInstructions({}));
  for (std::size_t length = 1; length < list.size(); ++length) {
    EXPECT_FALSE(HoldsPixelListInstructions(words.first(length))) << length << " of " << list.size();
  }
}

TEST(HoldsPixelListInstructions, RefusesAnInstructionWithoutItsOperand) {
  // Version, header length, no old length, list length, high part, two unused, then "set high part" as the last word.
  const std::vector<std::int16_t> list = {0, 7, -100, 8, 0, 0, 0, 0x1001};
  EXPECT_FALSE(HoldsPixelListInstructions(list));
  std::vector<std::int16_t> whole = list;
  whole[3] = 9;
  whole.push_back(1);
  EXPECT_TRUE(HoldsPixelListInstructions(whole));
  whole[1] = -1;
  EXPECT_FALSE(HoldsPixelListInstructions(whole)) << "a list that starts before itself";
}

TEST_F(FitsTiles, ADeflatedStreamMustEndAndFit) {
  Write(GZIP_1, SHORT_IMG, 40);
  const auto stream = Stream<std::uint8_t>(TBYTE, 1);
  const std::span<const std::uint8_t> bytes(stream);
  EXPECT_TRUE(HoldsDeflated(bytes, 2 * kColumns));
  EXPECT_FALSE(HoldsDeflated(bytes, 2 * kColumns - 1)) << "longer than its tile";
  for (std::size_t length = 0; length < stream.size(); ++length) {
    EXPECT_FALSE(HoldsDeflated(bytes.first(length), 2 * kColumns)) << length << " of " << stream.size();
  }
}

TEST_F(FitsTiles, ADeflatedStreamWithoutEndIsRefused) {
  Write(GZIP_1, SHORT_IMG, 40);
  const auto stream = Stream<std::uint8_t>(TBYTE, kRows);
  Damage(stream, stream.size() / 2, 0);
  EXPECT_EQ(Failure(),
            "Reading double-precision physical pixels failed for FITS image " + path_ + ": error uncompressing image");
}

TEST_F(FitsTiles, AnHcompressStreamMustBeOfItsTile) {
  Write(HCOMPRESS_1, SHORT_IMG, 40);
  auto stream = Stream<std::uint8_t>(TBYTE, 1);
  constexpr std::uint64_t kPixels = kColumns * kRows;
  EXPECT_TRUE(AnnouncesHcompressPixels(stream, kPixels));
  EXPECT_FALSE(AnnouncesHcompressPixels(stream, kPixels + 1));
  EXPECT_FALSE(AnnouncesHcompressPixels(std::span(stream).first(24), kPixels));
  stream[22] = 64;
  EXPECT_FALSE(AnnouncesHcompressPixels(stream, kPixels));
  stream[22] = 1;
  stream[0] = 0;
  EXPECT_FALSE(AnnouncesHcompressPixels(stream, kPixels));
}

}  // namespace
}  // namespace ulmora::cli
