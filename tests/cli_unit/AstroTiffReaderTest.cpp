#include "cli/AstroTiffReader.h"
#include "tests/cli_unit/TiffBytes.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace ulmora::cli {
namespace {

using test::InvalidArgumentText;
using test::TiffBytes;
using test::TiffForm;

const std::string kHeader = "SIMPLE  =                    T\nBITPIX  =                   16\nOBJECT  = 'M 31'\nEND";

TEST(AstroTiffRule, AcceptsCardsInLines) {
  EXPECT_TRUE(IsAstroTiffHeader(kHeader));
  EXPECT_TRUE(IsAstroTiffHeader("SIMPLE\nEND"));
  EXPECT_TRUE(IsAstroTiffHeader("SIMPLEST is also a beginning\n\nEND"));
}

TEST(AstroTiffRule, IgnoresNulsAndLineEndsBehindTheLastLine) {
  for (const std::string end : {"\n", "\r\n", "\r", "\n\n\r\n"}) EXPECT_TRUE(IsAstroTiffHeader(kHeader + end));
  EXPECT_TRUE(IsAstroTiffHeader(kHeader + std::string("\n\0\n\0\0", 5)));
  EXPECT_TRUE(IsAstroTiffHeader("SIMPLE = T\r\nBITPIX = 8\r\nEND\r\n"));
}

TEST(AstroTiffRule, LooksAtTheBeginningOfTheLastLineOnly) {
  EXPECT_TRUE(IsAstroTiffHeader("SIMPLE\nEND                 "));
  EXPECT_TRUE(IsAstroTiffHeader("SIMPLE\nENDING"));
  EXPECT_FALSE(IsAstroTiffHeader("SIMPLE\n END"));
  EXPECT_FALSE(IsAstroTiffHeader("SIMPLE\nEND\nHISTORY more"));
  EXPECT_FALSE(IsAstroTiffHeader("SIMPLE\nEND\n "));
}

TEST(AstroTiffRule, RefusesOtherTexts) {
  for (const char* text :
       {"", "SIMPLE", "SIMPLEEND", "SIMPLE  = T                END", "SIMPLE\n", "SIMPLE\nEN", "SIMPLE\nend",
        "simple\nEND", " SIMPLE\nEND", "\nSIMPLE\nEND", "END", "SIMPL\nEND", "Written by a camera\nEND"}) {
    EXPECT_FALSE(IsAstroTiffHeader(text)) << text;
  }
  EXPECT_FALSE(IsAstroTiffHeader(std::string(5, '\0')));
}

class AstroTiffFiles : public testing::TestWithParam<TiffForm> {
 protected:
  [[nodiscard]] std::string HeaderOf(const TiffBytes& file) const {
    test::WriteFile(path_, file.Build());
    return ReadAstroTiffHeader(path_);
  }
  [[nodiscard]] TiffBytes File() const { return TiffBytes(GetParam()); }

  test::TemporaryFolder folder_;
  std::string path_ = folder_.Path("a.tif");
};

INSTANTIATE_TEST_SUITE_P(, AstroTiffFiles, test::AllTiffForms(), test::TiffFormName);

TEST_P(AstroTiffFiles, HeaderComesWithoutItsNulAndWithItsLineFeeds) {
  EXPECT_EQ(HeaderOf(File().Numbers(256, 3, 2, {4}).Ascii(270, kHeader + '\0')), kHeader);
  EXPECT_EQ(HeaderOf(File().Ascii(270, kHeader + std::string("\r\n\0\0", 4))), kHeader + "\r\n");
}

TEST_P(AstroTiffFiles, OtherDescriptionsGiveNothing) {
  EXPECT_EQ(HeaderOf(File().Numbers(256, 3, 2, {4})), "");
  EXPECT_EQ(HeaderOf(File().Ascii(270, "written by a camera")), "");
  EXPECT_EQ(HeaderOf(File().Field(270, 1, kHeader.size(), kHeader)), "");
  // An ordinary description behind the header hides it.
  EXPECT_EQ(HeaderOf(File().Ascii(270, kHeader).Ascii(270, "written by a camera")), "");
}

TEST_P(AstroTiffFiles, DamagedFilesAreNamed) {
  std::string bytes = File().Ascii(270, kHeader).Build();
  bytes.pop_back();
  test::WriteFile(path_, bytes);
  EXPECT_EQ(InvalidArgumentText([&] { static_cast<void>(ReadAstroTiffHeader(path_)); }),
            "Invalid or truncated TIFF metadata in " + path_);
}

TEST(AstroTiffReader, NamesFilesThatItCannotOpen) {
  EXPECT_EQ(InvalidArgumentText([] { static_cast<void>(ReadAstroTiffHeader("/no/such.tif")); }),
            "Unable to open TIFF metadata: /no/such.tif");
}

TEST(AstroTiffReader, RefusesAFolder) {
  const test::TemporaryFolder folder;
  EXPECT_THROW(static_cast<void>(ReadAstroTiffHeader(folder.Path(""))), std::invalid_argument);
}

TEST(AstroTiffReader, RefusesAnEmptyFile) {
  const test::TemporaryFolder folder;
  const std::string path = folder.Path("empty.tif");
  test::WriteFile(path, "");
  EXPECT_EQ(InvalidArgumentText([&] { static_cast<void>(ReadAstroTiffHeader(path)); }),
            "Invalid TIFF header in " + path);
}

}  // namespace
}  // namespace ulmora::cli
