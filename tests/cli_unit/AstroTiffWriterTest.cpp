#include "cli/AstroTiffReader.h"
#include "cli/AstroTiffWriter.h"
#include "cli/TiffDirectory.h"
#include "tests/cli_unit/TiffBytes.h"
#include "tests/support/MemoryFile.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace ulmora::cli {
namespace {

using test::InvalidArgumentText;
using test::TiffBytes;
using test::TiffForm;

const std::string kLine8 = "BITPIX  =                   8";
const std::string kLine16 = "BITPIX  =                   16";

TEST(AstroTiffBitpix, ReplacesTheWholeLine) {
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE = T\nBITPIX  =                   16 / bits per sample\nNAXIS = 2\nEND", 8),
            "SIMPLE = T\n" + kLine8 + "\nNAXIS = 2\nEND");
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE = T\nBITPIX  = -32\nEND", 16), "SIMPLE = T\n" + kLine16 + "\nEND");
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE = T\nBITPIX  \nEND", 16), "SIMPLE = T\n" + kLine16 + "\nEND");
  EXPECT_EQ(kLine8.size(), 29u);
  EXPECT_EQ(kLine16.size(), 30u);
}

TEST(AstroTiffBitpix, ReplacesEveryMatchingLine) {
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE\nBITPIX  = 1\nX\nBITPIX  = 2\nEND", 8),
            "SIMPLE\n" + kLine8 + "\nX\n" + kLine8 + "\nEND");
}

TEST(AstroTiffBitpix, InsertsTheLineBehindTheFirst) {
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE\nNAXIS = 2\nEND", 8), "SIMPLE\n" + kLine8 + "\nNAXIS = 2\nEND");
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE\nEND", 16), "SIMPLE\n" + kLine16 + "\nEND");
}

TEST(AstroTiffBitpix, MatchesTheKeywordAndTwoBlanksOnly) {
  for (const std::string line :
       {"BITPIX= 16", "bitpix  = 16", "BITPIX =16", " BITPIX  = 16", "BITPIX ", "BITPIX\t = 16"}) {
    EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE\n" + line + "\nEND", 8), "SIMPLE\n" + kLine8 + "\n" + line + "\nEND");
  }
}

TEST(AstroTiffBitpix, LineEndsBecomeLineFeeds) {
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE\r\nBITPIX  = 1\r\n\r\nX\rY\r\r\nEND\r\n", 8),
            "SIMPLE\n" + kLine8 + "\n\nX\rY\r\nEND");
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE\n\nEND  \n", 8), "SIMPLE\n" + kLine8 + "\n\nEND  ");
  EXPECT_EQ(UpdateAstroTiffBitpix("SIMPLE\nEND\n\r", 8), "SIMPLE\n" + kLine8 + "\nEND");
}

TEST(AstroTiffBitpix, RefusesOtherTextsAndDepths) {
  const auto refusal = [](const std::string& header, int bitpix) {
    return InvalidArgumentText([&] { static_cast<void>(UpdateAstroTiffBitpix(header, bitpix)); });
  };
  EXPECT_EQ(refusal("a note", 8), "AstroTIFF metadata must start with SIMPLE and end with END.");
  EXPECT_EQ(refusal("a note", 32), "AstroTIFF metadata must start with SIMPLE and end with END.");
  for (const int bitpix : {0, -8, 32, -32, 9}) {
    EXPECT_EQ(refusal("SIMPLE\nEND", bitpix), "AstroTIFF output BITPIX must be 8 or 16.");
  }
}

const std::string kHeader = "SIMPLE  =                    T\nBITPIX  =                   16\nEND";

class AstroTiffWriterForms : public testing::TestWithParam<TiffForm> {
 protected:
  [[nodiscard]] TiffBytes File() const { return TiffBytes(GetParam()); }
  // The file after the header was written into it.
  [[nodiscard]] std::string Written(const std::string& bytes, const std::string& header) const {
    test::WriteFile(path_, bytes);
    WriteAstroTiffHeader(path_, header);
    return test::ReadFile(path_);
  }
  [[nodiscard]] std::string Refusal(const std::string& header) const {
    return InvalidArgumentText([&] { WriteAstroTiffHeader(path_, header); });
  }
  [[nodiscard]] TiffDirectory Directory() const {
    std::ifstream stream(path_, std::ios::binary);
    return ReadDirectory(stream, path_);
  }
  [[nodiscard]] std::vector<int> Tags() const {
    std::vector<int> tags;
    const TiffDirectory directory = Directory();
    for (const auto& entry : directory.entries) tags.push_back(Read16(entry.data(), directory.littleEndian));
    return tags;
  }
  [[nodiscard]] std::uint64_t FirstDirectoryOffset(const std::string& bytes) const {
    const auto* const field = reinterpret_cast<const std::uint8_t*>(bytes.data());
    return GetParam().bigTiff ? Read64(field + 8, GetParam().littleEndian) : Read32(field + 4, GetParam().littleEndian);
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.Path("a.tif");
};

INSTANTIATE_TEST_SUITE_P(, AstroTiffWriterForms, test::AllTiffForms(), test::TiffFormName);

TEST_P(AstroTiffWriterForms, AddsBehindTheEndAndChangesOneOffset) {
  const std::string old = File().Bytes("pixels").Numbers(256, 3, 2, {4}).Numbers(284, 3, 2, {1}).Build();
  const std::string now = Written(old, kHeader);
  // All but the offset in the file header is as before.
  const std::size_t offsetSize = File().OffsetSize();
  EXPECT_EQ(now.substr(0, offsetSize), old.substr(0, offsetSize));
  EXPECT_EQ(now.substr(2 * offsetSize, old.size() - 2 * offsetSize), old.substr(2 * offsetSize));

  const std::uint64_t alignment = GetParam().bigTiff ? 8 : 2;
  const std::size_t textOffset = (old.size() + alignment - 1) / alignment * alignment;
  EXPECT_EQ(now.substr(old.size(), textOffset - old.size()), std::string(textOffset - old.size(), '\0'));
  EXPECT_EQ(now.substr(textOffset, kHeader.size() + 1), kHeader + '\0');
  const std::size_t directoryOffset = (textOffset + kHeader.size() + 1 + alignment - 1) / alignment * alignment;
  EXPECT_EQ(FirstDirectoryOffset(now), directoryOffset);
  const std::size_t entrySize = GetParam().bigTiff ? 20 : 12;
  EXPECT_EQ(now.size(), directoryOffset + File().CountFieldSize() + 3 * entrySize + offsetSize);

  EXPECT_EQ(Tags(), (std::vector<int>{256, 270, 284}));
  EXPECT_EQ(ReadAstroTiffHeader(path_), kHeader);
  const TiffBytes sample = File();
  const std::size_t entryAt = directoryOffset + sample.CountFieldSize() + entrySize;
  EXPECT_EQ(now.substr(entryAt, entrySize), sample.Number(270, 2) + sample.Number(2, 2) +
                                                sample.Number(kHeader.size() + 1, offsetSize) +
                                                sample.Number(textOffset, offsetSize));
}

TEST_P(AstroTiffWriterForms, AlignsTextAndDirectoryAfterAnySize) {
  for (std::size_t padding = 0; padding < 9; ++padding) {
    const std::string old = File().Bytes(std::string(padding, 'p')).Build();
    for (std::size_t more = 0; more < 9; ++more) {
      const std::string header = "SIMPLE\n" + std::string(more, 'x') + "\nEND";
      const std::string now = Written(old, header);
      EXPECT_EQ(FirstDirectoryOffset(now) % (GetParam().bigTiff ? 8 : 2), 0u);
      EXPECT_EQ(now.find("SIMPLE") % (GetParam().bigTiff ? 8 : 2), 0u);
      EXPECT_EQ(ReadAstroTiffHeader(path_), header);
    }
  }
}

TEST_P(AstroTiffWriterForms, ReplacesEveryOldDescriptionOfAnyType) {
  const std::string old = File()
                              .Ascii(270, "written by a camera")
                              .Numbers(257, 3, 2, {4})
                              .Field(270, 7, 3, "abc")
                              .Numbers(256, 3, 2, {4})
                              .Build();
  static_cast<void>(Written(old, kHeader));
  EXPECT_EQ(Tags(), (std::vector<int>{256, 257, 270}));
  EXPECT_EQ(Directory().imageDescription, kHeader);
}

TEST_P(AstroTiffWriterForms, KeepsFurtherPagesAndOtherEntries) {
  const std::string old =
      File().Numbers(305, 4, 4, {1, 2, 3}).Raw(65000, 99, 7, "\x01\x02").NextDirectory(0x1234).Build();
  test::WriteFile(path_, old);
  const TiffDirectory before = Directory();
  WriteAstroTiffHeader(path_, kHeader);
  const TiffDirectory after = Directory();
  EXPECT_EQ(after.nextDirectoryOffset, 0x1234u);
  ASSERT_EQ(after.entries.size(), 3u);
  EXPECT_EQ(after.entries[1], before.entries[0]);
  EXPECT_EQ(after.entries[2], before.entries[1]);
}

TEST_P(AstroTiffWriterForms, CanBeWrittenAgain) {
  static_cast<void>(Written(File().Build(), kHeader));
  const std::string second = "SIMPLE\nsecond\nEND";
  WriteAstroTiffHeader(path_, second);
  EXPECT_EQ(ReadAstroTiffHeader(path_), second);
  EXPECT_EQ(Tags(), std::vector<int>{270});
}

TEST_P(AstroTiffWriterForms, BoundsTheText) {
  test::WriteFile(path_, File().Build());
  std::string text = "SIMPLE\n" + std::string(16777215 - 11, 'x') + "\nEND";
  ASSERT_EQ(text.size(), 16777215u);
  WriteAstroTiffHeader(path_, text);
  EXPECT_TRUE(ReadAstroTiffHeader(path_) == text);
  const std::uintmax_t size = std::filesystem::file_size(path_);
  EXPECT_EQ(Refusal(text + "\n"), "AstroTIFF metadata exceeds the supported 16 MiB limit.");
  EXPECT_EQ(std::filesystem::file_size(path_), size);
}

TEST_P(AstroTiffWriterForms, RefusesBeforeItChangesAnything) {
  const std::string old = File().Numbers(256, 3, 2, {4}).Build();
  test::WriteFile(path_, old);
  EXPECT_EQ(Refusal("a note"), "AstroTIFF metadata must start with SIMPLE and end with END.");
  EXPECT_EQ(test::ReadFile(path_), old);
  const std::string cut = old.substr(0, old.size() - 1);
  test::WriteFile(path_, cut);
  EXPECT_EQ(Refusal(kHeader), "Invalid or truncated TIFF metadata in " + path_);
  EXPECT_EQ(test::ReadFile(path_), cut);
}

TEST_P(AstroTiffWriterForms, HandlesAFullDirectory) {
  TiffBytes file = File();
  for (int i = 0; i < 65535; ++i) file.Raw(300, 3, 1, "");
  const std::string old = file.Build();
  test::WriteFile(path_, old);
  if (GetParam().bigTiff) {
    // The count field has room, so the file is written; but our own reader takes no more than 65535 entries.
    WriteAstroTiffHeader(path_, kHeader);
    EXPECT_EQ(InvalidArgumentText([&] { static_cast<void>(ReadAstroTiffHeader(path_)); }),
              "Unreasonably large TIFF directory in " + path_);
  } else {
    EXPECT_EQ(Refusal(kHeader), "Classic TIFF directory has no room for AstroTIFF metadata: " + path_);
    EXPECT_TRUE(test::ReadFile(path_) == old);
  }
}

TEST_P(AstroTiffWriterForms, AFullDirectoryWithADescriptionHasRoom) {
  TiffBytes file = File().Ascii(270, "old");
  for (int i = 0; i < 65534; ++i) file.Raw(300, 3, 1, "");
  static_cast<void>(Written(file.Build(), kHeader));
  EXPECT_EQ(ReadAstroTiffHeader(path_), kHeader);
}

TEST_P(AstroTiffWriterForms, BoundsClassicFilesByTheirOffsets) {
  const std::string old = File().Numbers(256, 3, 2, {4}).Build();
  const std::uint64_t top = 0xFFFFFFFF;
  const std::string noText = "Classic TIFF output is too large to append AstroTIFF metadata: " + path_;
  const std::string noDirectory = "Classic TIFF output is too large to append an AstroTIFF directory: " + path_;
  const std::string text = "SIMPLE\n\nEND";  // 12 bytes with its NUL
  const std::uint64_t directorySize = 2 + 2 * 12 + 4;
  struct Case {
    std::uint64_t size;
    const std::string* refusal;
  };
  // The greatest even size that leaves room for text and directory is fine; each step further meets its own refusal.
  const std::uint64_t fits = (top - directorySize - 12) / 2 * 2;
  const Case cases[] = {{fits, nullptr},    {fits + 2, &noDirectory}, {top - 1 - 12, &noDirectory}, {top - 11, &noText},
                        {top - 1, &noText}, {top, &noText},           {top + 1, &noText},           {2 * top, &noText}};
  for (const Case& c : cases) {
    test::WriteFile(path_, old);
    std::filesystem::resize_file(path_, c.size);  // sparse
    if (c.refusal == nullptr || GetParam().bigTiff) {
      WriteAstroTiffHeader(path_, text);
      EXPECT_EQ(ReadAstroTiffHeader(path_), text) << c.size;
    } else {
      EXPECT_EQ(Refusal(text), *c.refusal) << c.size;
      EXPECT_EQ(std::filesystem::file_size(path_), c.size);
      EXPECT_EQ(ReadAstroTiffHeader(path_), "");
    }
  }
}

/// A file whose writes fail between two positions, as on a full or failing disk.
class FailingFile : public test::MemoryFile {
 public:
  FailingFile(const std::string& bytes, std::streamoff from, std::streamoff to)
      : test::MemoryFile(bytes), from_(from), to_(to) {}

 protected:
  std::streamsize xsputn(const char* bytes, std::streamsize size) override {
    const std::streamoff at = std::stringbuf::seekoff(0, std::ios::cur, std::ios::out);
    if (at + size > from_ && at < to_) return 0;
    return std::stringbuf::xsputn(bytes, size);
  }

 private:
  std::streamoff from_;
  std::streamoff to_;
};

TEST_P(AstroTiffWriterForms, SaysWhichWriteFailedAndLeavesTheOldDirectory) {
  const std::string old = File().Numbers(256, 3, 2, {4}).Build();
  struct Case {
    std::streamoff from, to;
    std::string text;
  };
  const auto end = static_cast<std::streamoff>(old.size());
  const std::streamoff never = 1 << 30;
  const Case cases[] = {
      {end, never, "Unable to append AstroTIFF metadata to a.tif"},
      {end + static_cast<std::streamoff>(kHeader.size()) + 20, never, "Unable to append AstroTIFF metadata to a.tif"},
      {0, end, "Unable to activate AstroTIFF metadata in a.tif"}};
  for (const Case& c : cases) {
    FailingFile file(old, c.from, c.to);
    std::iostream stream(&file);
    EXPECT_EQ(InvalidArgumentText([&] { WriteAstroTiffHeader(stream, "a.tif", kHeader); }), c.text);
    EXPECT_EQ(file.str().substr(0, old.size()), old);
  }
  FailingFile sound(old, never, never);
  std::iostream stream(&sound);
  WriteAstroTiffHeader(stream, "a.tif", kHeader);
  EXPECT_EQ(ReadDirectory(stream, "a.tif").imageDescription, kHeader);
}

TEST(AstroTiffWriter, NamesFilesThatItCannotOpen) {
  EXPECT_EQ(InvalidArgumentText([] { WriteAstroTiffHeader("/no/such.tif", "SIMPLE\nEND"); }),
            "Unable to open TIFF output metadata: /no/such.tif");
}

TEST(AstroTiffWriter, DoesNotCreateAFile) {
  const test::TemporaryFolder folder;
  EXPECT_THROW(WriteAstroTiffHeader(folder.Path("new.tif"), "SIMPLE\nEND"), std::invalid_argument);
  EXPECT_FALSE(std::filesystem::exists(folder.Path("new.tif")));
}

TEST(AstroTiffWriter, ChecksTheTextBeforeItOpensTheFile) {
  EXPECT_EQ(InvalidArgumentText([] { WriteAstroTiffHeader("/no/such.tif", "a note"); }),
            "AstroTIFF metadata must start with SIMPLE and end with END.");
}

}  // namespace
}  // namespace ulmora::cli
