#include "cli/CommandLineUsage.h"
#include "cli/HelpText.h"
#include "cli/UpdateCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace ulmora::cli {
namespace {

using testing::HasSubstr;
using testing::Not;

const CliPackageLayout kLayout{"lumvane", "Lumvane", "lumvane", {"v1.mlpackage", "v2.mlpackage"}, true};

TEST(HelpText, PiecesBeginWithTheirLineFeedsAndEndWithoutOne) {
  for (const std::string& text : {CommonInputHelp(false), CommonOutputHelp(false), PackageLayoutHelp(kLayout)}) {
    EXPECT_TRUE(text.starts_with("\n\n "));
    EXPECT_FALSE(text.ends_with('\n'));
  }
}

TEST(HelpText, TheStarLayerTextsComeWithTheirCondition) {
  EXPECT_THAT(CommonInputHelp(true), HasSubstr("\n   With --linear only, negative shadows are restored after MTF."));
  EXPECT_THAT(CommonInputHelp(false), Not(HasSubstr("With --linear only")));
  EXPECT_THAT(CommonOutputHelp(true), HasSubstr("main/difference preserves"));
  EXPECT_THAT(CommonOutputHelp(true), HasSubstr("either star-layer output."));
  EXPECT_THAT(CommonOutputHelp(false), HasSubstr("source storage type, scaling and source units."));
  EXPECT_THAT(CommonOutputHelp(false), Not(HasSubstr("nscreen")));
}

TEST(HelpText, PackageLayoutLineByLine) {
  EXPECT_EQ(PackageLayoutHelp(kLayout),
            "\n\n Package layout:\n   Portable archive:\n"
            "     To run from the extracted archive, keep these files together:\n"
            "     lumvane/\n       lumvane\n       v1.mlpackage\n       v2.mlpackage\n       lib/\n"
            "       README.txt\n       LICENSE.txt\n\n   Manual install:\n"
            "     To run lumvane from anywhere, place the files like this:\n     /usr/local/bin/lumvane\n"
            "     /usr/local/lib/lumvane/v1.mlpackage\n     /usr/local/lib/lumvane/v2.mlpackage\n"
            "     /usr/local/lib/lumvane/<runtime libraries>");
}

TEST(HelpText, WithoutRuntimeLibrariesTwoLinesVanish) {
  CliPackageLayout layout = kLayout;
  layout.runtimeLibraries = false;
  std::string expected = PackageLayoutHelp(kLayout);
  for (const std::string line : {"\n       lib/", "\n     /usr/local/lib/lumvane/<runtime libraries>"}) {
    expected.erase(expected.find(line), line.size());
  }
  EXPECT_EQ(PackageLayoutHelp(layout), expected);
}

TEST(HelpText, TheContractJoinsItsPiecesInOrder) {
  const std::string text = HelpContract("v1.mlpackage", "v2.mlpackage", true);
  EXPECT_TRUE(text.starts_with(CommonInputHelp(false) + "\n\n Models:\n   Model 1: RGB/color images only."));
  EXPECT_TRUE(text.ends_with("will yield poor results." + CommonOutputHelp(false) + PackageLayoutHelp(kLayout)));
}

std::string Wrapped(const std::string& line, std::size_t width, std::size_t indent, std::size_t hanging) {
  std::ostringstream out;
  PrintWrapped(out, line, width, indent, hanging);
  return out.str();
}

TEST(PrintWrapped, KeepsLinesThatFitWithTheirOwnIndentation) {
  EXPECT_EQ(Wrapped("  ab cd", 10, 3, 0), "     ab cd\n");
  EXPECT_EQ(Wrapped("", 10, 3, 0), "\n");
}

TEST(PrintWrapped, BreaksAtBlanksAndHangsTheRest) {
  EXPECT_EQ(Wrapped("ab cd ef", 8, 3, 0), "   ab cd\n   ef\n");
  EXPECT_EQ(Wrapped("ab cd ef", 7, 3, 1), "   ab\n    cd\n    ef\n");
  EXPECT_EQ(Wrapped("   abc def", 10, 3, 0), "      abc\n   def\n");
}

TEST(PrintWrapped, CutsAWordThatIsLongerThanALine) {
  EXPECT_EQ(Wrapped("abcdefgh", 8, 3, 0), "   abcde\n   fgh\n");
  EXPECT_EQ(Wrapped("  abcdefgh", 8, 3, 0), "     abc\n   defgh\n");
}

TEST(UpdateCheck, AnswersWithTheDisplayName) {
  std::ostringstream out;
  EXPECT_EQ(RunUpdateCheck("lumvane", "Lumvane", "1.3.2", "0147", out), 0);
  EXPECT_EQ(out.str(), "Update checking is not available in this Lumvane build.\n");
  EXPECT_FALSE(UpdateCheckAvailable());
}

}  // namespace
}  // namespace ulmora::cli
