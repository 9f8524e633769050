#include "cli/TiffDirectory.h"
#include "tests/cli_unit/TiffBytes.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

namespace ulmora::cli {
namespace {

using test::InvalidArgumentText;
using test::TiffBytes;
using test::TiffForm;

constexpr std::uint16_t kAscii = 2;
constexpr std::uint16_t kDescription = 270;

TiffDirectory Parse(const std::string& bytes) {
  std::istringstream stream(bytes);
  return ReadDirectory(stream, "a.tif");
}

std::string Refusal(const std::string& bytes) {
  return InvalidArgumentText([&] { static_cast<void>(Parse(bytes)); });
}

class TiffDirectoryForms : public testing::TestWithParam<TiffForm> {
 protected:
  [[nodiscard]] TiffBytes File() const { return TiffBytes(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(, TiffDirectoryForms, test::AllTiffForms(), test::TiffFormName);

TEST(TiffPath, GoesByTheEndOfTheNameAlone) {
  for (const char* path : {"a.tif", "a.tiff", "a.TIF", "a.TiFf", "/x.y/b.c.Tif", ".tif"}) EXPECT_TRUE(IsTiffPath(path));
  for (const char* path : {"a.tif.gz", "a.ti", "tif", "a.tifff", "", "a.tif ", "a.fits"})
    EXPECT_FALSE(IsTiffPath(path));
}

TEST(TiffPath, LowercasesBytesAsUnsigned) {
  EXPECT_EQ(LowercaseExtension("/A\xC3\x84.Tif"), "/a\xC3\x84.tif");
}

TEST_P(TiffDirectoryForms, KeepsHeaderFactsAndRawEntries) {
  const std::string bytes =
      File().Numbers(256, 3, 2, {640}).Numbers(257, 4, 4, {480}).NextDirectory(0x12345678).Build();
  const TiffDirectory directory = Parse(bytes);
  EXPECT_EQ(directory.littleEndian, GetParam().littleEndian);
  EXPECT_EQ(directory.bigTiff, GetParam().bigTiff);
  EXPECT_EQ(directory.fileSize, bytes.size());
  EXPECT_EQ(directory.nextDirectoryOffset, 0x12345678u);
  EXPECT_EQ(directory.imageDescription, "");
  ASSERT_EQ(directory.entries.size(), 2u);
  const std::size_t entrySize = GetParam().bigTiff ? 20 : 12;
  const std::size_t firstEntry = File().HeaderSize() + File().CountFieldSize();
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(std::string(directory.entries[i].begin(), directory.entries[i].end()),
              bytes.substr(firstEntry + i * entrySize, entrySize));
  }
}

TEST_P(TiffDirectoryForms, ReadsDescriptionAtItsOffset) {
  const std::string text = "SIMPLE  =                    T\nEND";
  EXPECT_EQ(Parse(File().Bytes("pixels").Ascii(kDescription, text + '\0').Build()).imageDescription, text);
}

TEST_P(TiffDirectoryForms, ReadsDescriptionFromItsEntryUpToTheValueField) {
  const std::string full = std::string("abcdefgh").substr(0, File().OffsetSize());
  EXPECT_EQ(Parse(File().Raw(kDescription, kAscii, full.size(), full).Build()).imageDescription, full);
  EXPECT_EQ(Parse(File().Raw(kDescription, kAscii, 1, "Z").Build()).imageDescription, "Z");
  // One byte more is an offset: here to the second byte of the file's own header.
  const TiffBytes beyond = File().Raw(kDescription, kAscii, full.size() + 1, File().Number(1, File().OffsetSize()));
  const std::string bytes = beyond.Build();
  std::string expected = bytes.substr(1, full.size() + 1);
  expected.erase(expected.find_last_not_of('\0') + 1);
  EXPECT_EQ(Parse(bytes).imageDescription, expected);
}

TEST_P(TiffDirectoryForms, RemovesTrailingNulsOnly) {
  const std::string text("a\0b\nc\0\0\0", 9);
  EXPECT_EQ(Parse(File().Ascii(kDescription, text).Build()).imageDescription, std::string("a\0b\nc", 5));
  EXPECT_EQ(Parse(File().Ascii(kDescription, std::string(3, '\0')).Build()).imageDescription, "");
}

TEST_P(TiffDirectoryForms, IgnoresUnusableDescriptions) {
  EXPECT_EQ(Parse(File().Field(kDescription, 1, 12, "not of ASCII").Build()).imageDescription, "");
  EXPECT_EQ(Parse(File().Raw(kDescription, kAscii, 0, "abc").Build()).imageDescription, "");
  // Too long counts as unusable before its offset is looked at.
  EXPECT_EQ(Parse(File().Raw(kDescription, kAscii, kMaxTiffDescriptionBytes + 1, "\xFF\xFF").Build()).imageDescription,
            "");
  EXPECT_EQ(Parse(File().Ascii(269, "another tag").Build()).imageDescription, "");
}

TEST_P(TiffDirectoryForms, AcceptsTheLongestDescription) {
  std::string text(kMaxTiffDescriptionBytes, 'x');
  EXPECT_TRUE(Parse(File().Ascii(kDescription, text).Build()).imageDescription == text);
}

TEST_P(TiffDirectoryForms, TakesTheLastOfSeveralUsableDescriptions) {
  const std::string bytes = File()
                                .Ascii(kDescription, "the first one")
                                .Ascii(kDescription, "the second one")
                                .Field(kDescription, 7, 13, "of other type")
                                .Build();
  EXPECT_EQ(Parse(bytes).imageDescription, "the second one");
}

TEST_P(TiffDirectoryForms, RefusesDescriptionOutsideTheFile) {
  const std::string expected = "Invalid TIFF ImageDescription offset in a.tif";
  const std::size_t size = File().Raw(kDescription, kAscii, 9, "").Build().size();
  const auto at = [&](std::uint64_t offset) {
    return File().Raw(kDescription, kAscii, 9, File().Number(offset, File().OffsetSize())).Build();
  };
  EXPECT_EQ(Refusal(at(size)), expected);
  EXPECT_EQ(Refusal(at(size + 1)), expected);
  EXPECT_EQ(Refusal(at(size - 8)), expected);
  EXPECT_EQ(Refusal(at(std::numeric_limits<std::uint64_t>::max())), expected);
  EXPECT_EQ(Parse(at(size - 9)).entries.size(), 1u);
}

TEST_P(TiffDirectoryForms, RefusesDirectoryBeyondTheEnd) {
  const std::string expected = "Invalid or truncated TIFF metadata in a.tif";
  const TiffBytes file = File();
  EXPECT_EQ(Refusal(file.Header(file.HeaderSize())), expected);
  EXPECT_EQ(Refusal(file.Header(std::numeric_limits<std::uint32_t>::max())), expected);
  // As a signed position this one would be just before the start.
  EXPECT_EQ(Refusal(file.Header(std::numeric_limits<std::uint64_t>::max())), expected);
  if (GetParam().bigTiff) {
    EXPECT_EQ(Refusal(file.Header(std::uint64_t{1} << 63)), expected);
  }
}

TEST_P(TiffDirectoryForms, RefusesEveryCutOfAFile) {
  const std::string whole = File().Numbers(256, 3, 2, {640}).Ascii(kDescription, "SIMPLE = T\nEND").Build();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const std::string text = Refusal(whole.substr(0, size));
    EXPECT_EQ(text, size < 8 ? "Invalid TIFF header in a.tif" : "Invalid or truncated TIFF metadata in a.tif") << size;
  }
  EXPECT_EQ(Parse(whole).entries.size(), 2u);
}

TEST_P(TiffDirectoryForms, NeverFailsOtherwiseThanByRefusingOnAnyChangedByte) {
  const std::string whole =
      File().Numbers(256, 3, 2, {640}).Numbers(273, 4, 4, {8, 9, 10}).Ascii(kDescription, "SIMPLE = T\nEND").Build();
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
      std::string changed = whole;
      changed[at] = static_cast<char>(value);
      std::istringstream stream(changed);
      try {
        const TiffDirectory directory = ReadDirectory(stream, "a.tif");
        static_cast<void>(ReadFieldValues(stream, directory, TiffTag::kStripOffsets, "a.tif"));
      } catch (const std::invalid_argument&) {
      }
    }
  }
}

TEST_P(TiffDirectoryForms, DoesNotFollowTheNextDirectory) {
  // Points at itself, which would be endless.
  const std::uint64_t self = File().Here();
  EXPECT_EQ(Parse(File().NextDirectory(self).Build()).nextDirectoryOffset, self);
}

TEST_P(TiffDirectoryForms, AcceptsTheMostEntriesAllowed) {
  TiffBytes file = File();
  for (int i = 0; i < 65535; ++i) file.Raw(300, 3, 1, "");
  EXPECT_EQ(Parse(file.Build()).entries.size(), 65535u);
}

TEST_P(TiffDirectoryForms, WorksOnAStreamThatHasFailed) {
  std::istringstream stream(File().Ascii(kDescription, "still found").Build());
  std::string all(1000, '\0');
  stream.read(all.data(), 1000);
  ASSERT_TRUE(stream.fail());
  EXPECT_EQ(ReadDirectory(stream, "a.tif").imageDescription, "still found");
}

TEST(TiffDirectory, RefusesSevenBytes) {
  EXPECT_EQ(Refusal("II*\0\x08\0\0"), "Invalid TIFF header in a.tif");
}

TEST(TiffDirectory, RefusesUnknownByteOrders) {
  for (const char* order : {"IM", "MI", "XX", "ii", "Ix"}) {
    EXPECT_EQ(Refusal(order + std::string(14, '\0')), "Invalid TIFF byte order in a.tif") << order;
  }
}

TEST(TiffDirectory, RefusesUnknownVersions) {
  // 42 in the wrong byte order is another number.
  for (const std::string& start : {std::string("II\0*", 4), std::string("MM*\0", 4), std::string("II\x29\0", 4),
                                   std::string("II\x2C\0", 4), std::string("MM\x01\x2A", 4)}) {
    EXPECT_EQ(Refusal(start + std::string(12, '\0')), "Unsupported TIFF version in a.tif");
  }
}

TEST(TiffDirectory, RefusesOtherBigTiffLayouts) {
  for (const bool littleEndian : {true, false}) {
    const TiffBytes file({littleEndian, true});
    const std::string start = file.Header(16).substr(0, 4);
    const std::string expected = "Unsupported BigTIFF offset layout in a.tif";
    EXPECT_EQ(Refusal(start + file.Number(4, 2) + file.Number(0, 2) + file.Number(16, 8)), expected);
    EXPECT_EQ(Refusal(start + file.Number(16, 2) + file.Number(0, 2) + file.Number(16, 8)), expected);
    EXPECT_EQ(Refusal(start + file.Number(8, 2) + file.Number(1, 2) + file.Number(16, 8)), expected);
  }
}

TEST(TiffDirectory, RefusesTooManyBigTiffEntriesBeforeReadingThem) {
  for (const std::uint64_t count : {std::uint64_t{65536}, std::numeric_limits<std::uint64_t>::max()}) {
    const TiffBytes file({true, true});
    EXPECT_EQ(Refusal(file.Header(16) + file.Number(count, 8)), "Unreasonably large TIFF directory in a.tif");
  }
}

class TiffFieldValues : public TiffDirectoryForms {
 protected:
  static std::optional<std::vector<std::uint64_t>> Values(const std::string& bytes, TiffTag tag) {
    std::istringstream stream(bytes);
    const TiffDirectory directory = ReadDirectory(stream, "a.tif");
    return ReadFieldValues(stream, directory, tag, "a.tif");
  }
  static std::string ValuesRefusal(const std::string& bytes) {
    return InvalidArgumentText([&] { static_cast<void>(Values(bytes, TiffTag::kStripOffsets)); });
  }
};

INSTANTIATE_TEST_SUITE_P(, TiffFieldValues, test::AllTiffForms(), test::TiffFormName);

TEST_P(TiffFieldValues, WidensEveryUnsignedType) {
  struct Type {
    std::uint16_t code;
    std::size_t size;
  };
  for (const Type type : {Type{1, 1}, Type{3, 2}, Type{4, 4}, Type{13, 4}, Type{16, 8}, Type{18, 8}}) {
    const std::uint64_t top = std::numeric_limits<std::uint64_t>::max() >> (64 - 8 * type.size);
    for (const std::vector<std::uint64_t>& numbers :
         {std::vector<std::uint64_t>{1}, {top}, {1, 2}, {3, top - 1, 5}, {9, 8, 7, 6, 5, 4, 3, 2, 1}}) {
      const std::string bytes = File().Numbers(273, type.code, type.size, numbers).Build();
      EXPECT_EQ(Values(bytes, TiffTag::kStripOffsets), numbers) << "type " << type.code;
    }
  }
}

TEST_P(TiffFieldValues, GivesNothingForAbsentFieldsAndOtherTypes) {
  EXPECT_EQ(Values(File().Numbers(273, 3, 2, {1}).Build(), TiffTag::kSampleFormat), std::nullopt);
  for (const std::uint16_t type : {0, 2, 5, 6, 7, 8, 9, 10, 11, 12, 14, 15, 17, 19, 65535}) {
    EXPECT_EQ(Values(File().Raw(273, type, 1, "a").Build(), TiffTag::kStripOffsets), std::nullopt) << type;
  }
}

TEST_P(TiffFieldValues, TakesTheFirstOfSeveralFields) {
  EXPECT_EQ(Values(File().Numbers(273, 3, 2, {1}).Numbers(273, 3, 2, {2}).Build(), TiffTag::kStripOffsets),
            std::vector<std::uint64_t>{1});
}

TEST_P(TiffFieldValues, RefusesValuesOutsideTheFile) {
  const std::string expected = "Invalid or truncated TIFF metadata in a.tif";
  const auto longs = [&](std::uint64_t count, std::uint64_t offset) {
    return File().Raw(273, 4, count, File().Number(offset, File().OffsetSize())).Build();
  };
  const std::size_t size = longs(3, 0).size();
  EXPECT_EQ(Values(longs(3, size - 12), TiffTag::kStripOffsets)->size(), 3u);
  EXPECT_EQ(ValuesRefusal(longs(3, size - 11)), expected);
  EXPECT_EQ(ValuesRefusal(longs(3, size)), expected);
  EXPECT_EQ(ValuesRefusal(longs(3, std::numeric_limits<std::uint64_t>::max())), expected);
}

TEST_P(TiffFieldValues, RefusesCountsThatTheFileCannotHold) {
  const std::string expected = "Invalid or truncated TIFF metadata in a.tif";
  for (const std::uint64_t count : {std::uint64_t{1000}, kMaxTiffFieldValues + 1, std::uint64_t{0xFFFFFFFF}}) {
    EXPECT_EQ(ValuesRefusal(File().Raw(273, 4, count, "").Build()), expected) << count;
  }
  if (GetParam().bigTiff) {
    // Times the size of a value these wrap to 0 and 8.
    EXPECT_EQ(ValuesRefusal(File().Raw(273, 16, std::uint64_t{1} << 61, "").Build()), expected);
    EXPECT_EQ(ValuesRefusal(File().Raw(273, 16, (std::uint64_t{1} << 61) + 1, "").Build()), expected);
  }
}

TEST_P(TiffFieldValues, FallsBackForASingleValue) {
  std::istringstream stream(File().Numbers(277, 3, 2, {3, 4}).Raw(284, 3, 0, "").Build());
  const TiffDirectory directory = ReadDirectory(stream, "a.tif");
  EXPECT_EQ(ReadFieldValue(stream, directory, TiffTag::kSamplesPerPixel, 1, "a.tif"), 3u);
  EXPECT_EQ(ReadFieldValue(stream, directory, TiffTag::kPlanarConfiguration, 7, "a.tif"), 7u);
  EXPECT_EQ(ReadFieldValue(stream, directory, TiffTag::kBitsPerSample, 1, "a.tif"), 1u);
}

}  // namespace
}  // namespace ulmora::cli
