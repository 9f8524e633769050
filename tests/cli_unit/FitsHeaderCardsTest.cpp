#include "cli/FitsFile.h"
#include "cli/FitsHeaderCards.h"
#include "tests/cli_unit/FitsTesting.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace ulmora::cli {
namespace {

TEST(HeaderKeyword, IsTheFirstEightColumnsInLowerCase) {
  EXPECT_EQ(HeaderKeyword("EXPTIME =                 30.0 / seconds"), "exptime");
  EXPECT_EQ(HeaderKeyword("HIERARCH ESO DET = 1"), "hierarch");
  EXPECT_EQ(HeaderKeyword("        a comment"), "");
  EXPECT_EQ(HeaderKeyword("END"), "end");
  EXPECT_EQ(HeaderKeyword(""), "");
  EXPECT_EQ(HeaderKeyword("NAXIS=3 "), "naxis=3");
}

TEST(IsOutputOwnedHeaderCard, KnowsStructureScalingAndIntegrity) {
  for (const char* keyword :
       {"SIMPLE",  "XTENSION", "BITPIX",   "PCOUNT",  "GCOUNT",   "EXTEND",   "BSCALE", "BZERO",   "BLANK",
        "DATAMIN", "DATAMAX",  "CHECKSUM", "DATASUM", "CREATOR",  "END",      "ZIMAGE", "ZBITPIX", "ZCMPTYPE",
        "ZNAXIS",  "ZQUANTIZ", "ZDITHER0", "ZBLANK",  "ZHECKSUM", "ZDATASUM", "THEAP",  "TFIELDS", "NAXIS"}) {
    EXPECT_TRUE(IsOutputOwnedHeaderCard(keyword)) << keyword;
  }
}

TEST(IsOutputOwnedHeaderCard, KnowsIndexedFamiliesByTheirDigits) {
  for (const char* keyword : {"NAXIS1", "NAXIS12", "naxis1", "ZNAXIS2", "ZTILE1", "ZNAME3", "ZVAL10"}) {
    EXPECT_TRUE(IsOutputOwnedHeaderCard(keyword)) << keyword;
  }
  for (const char* keyword : {"NAXISA", "NAXIS_OL", "NAXIS1A", "ZTILE", "ZNAME", "ZVAL", "TFORM1", "TTYPE1"}) {
    EXPECT_FALSE(IsOutputOwnedHeaderCard(keyword)) << keyword;
  }
}

TEST(IsOutputOwnedHeaderCard, LeavesAstronomyAlone) {
  for (const char* card :
       {"OBJECT  = 'M13'", "EXTNAME = 'SCI'", "EXTVER  =  1", "BUNIT   = 'adu'", "HISTORY x", "COMMENT BITPIX",
        "CONTINUE  'x'", "        BITPIX", "HIERARCH BITPIX = 1", "NAXIS=3 ", "CRVAL1  = 1.0"}) {
    EXPECT_FALSE(IsOutputOwnedHeaderCard(card)) << card;
  }
}

class PreservedCards : public testing::Test {
 protected:
  /// Writes the cards into a new file and returns that file's header.
  test::FitsContent Written(const FitsMetadata* metadata) {
    const std::string path = folder_.Path("out.fits");
    test::WriteFits(path, BYTE_IMG, {1, 1}, {0.0});
    int status = 0;
    FitsFile file;
    fits_open_diskfile(file.Out(), path.c_str(), READWRITE, &status);
    WritePreservedHeaderCards(file.Get(), metadata, path);
    file.CloseChecked("Closing", path);
    return test::ReadFits(path);
  }

  test::TemporaryFolder folder_;
};

TEST_F(PreservedCards, AreWrittenInOrderAndVerbatim) {
  FitsMetadata metadata;
  metadata.headerCards = {"OBJECT  = 'M13     '           / target", "BZERO   =                32768", "HISTORY first",
                          "EXPTIME =                 30.0", "HISTORY second"};
  const std::size_t structural = Written(nullptr).cards.size();
  const test::FitsContent content = Written(&metadata);
  ASSERT_EQ(content.cards.size(), structural + 4);
  EXPECT_EQ(content.cards[structural], metadata.headerCards[0]);
  EXPECT_EQ(content.cards[structural + 3], metadata.headerCards[4]);
  EXPECT_TRUE(content.Cards("BZERO").empty());
}

TEST_F(PreservedCards, OnlyStructuralCardsAddNothing) {
  FitsMetadata metadata;
  metadata.headerCards = {"SIMPLE  =                    T", "NAXIS   =                    0"};
  EXPECT_EQ(Written(&metadata).cards, Written(nullptr).cards);
}

TEST_F(PreservedCards, ADamagedKeywordDoesNotBecomeStructural) {
  FitsMetadata metadata;
  metadata.headerCards = {"GCOUNT\x1e\x1e= ", "NAXIS1 \x7f=                    9", "OBJECT  = 'M 13    '"};
  const test::FitsContent content = Written(&metadata);
  EXPECT_EQ(content.axes, (std::vector<long>{1, 1}));
  EXPECT_EQ(content.Cards("GCOUNT").size(), 0U);
  EXPECT_EQ(content.Cards("NAXIS1").size(), 1U);
  EXPECT_EQ(content.Cards("OBJECT").size(), 1U);
}

TEST_F(PreservedCards, ACardThatCannotBeWrittenIsAFailureWithItsStage) {
  FitsMetadata metadata;
  metadata.headerCards = {"KEY=VAL  'x'"};
  const std::string text = test::ThrownText<std::invalid_argument>([&] { Written(&metadata); });
  EXPECT_TRUE(text.starts_with("Preserving header metadata failed for FITS image " + folder_.Path("out.fits") + ": "))
      << text;
}

}  // namespace
}  // namespace ulmora::cli
