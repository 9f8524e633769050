#include "engine/package/Text.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using testing::ExpectError;

TEST(Quoted, ControlCharactersCannotBreakALine) {
  EXPECT_EQ(Quoted("plain name"), "'plain name'");
  EXPECT_EQ(Quoted("a\nb\tc\x7F"), "'a?b?c?'");
  EXPECT_EQ(Quoted(std::string("a\0b", 3)), "'a?b'");
}

TEST(Quoted, LongNamesAreCut) {
  EXPECT_EQ(Quoted(std::string(1024, 'x')), "'" + std::string(1024, 'x') + "'");
  EXPECT_EQ(Quoted(std::string(1025, 'x')), "'" + std::string(1024, 'x') + "...'");
  EXPECT_EQ(Quoted(std::string(1023, 'x') + "\xC3\xA9"), "'" + std::string(1023, 'x') + "...'");
}

TEST(CheckedName, RefusesWhatCannotBeAName) {
  EXPECT_EQ(CheckedName("conv_1", "a value"), "conv_1");
  ExpectError(Stage::Open, {"a value has no name"}, [] { CheckedName("", "a value"); });
  ExpectError(Stage::Open, {"control character", "'a?b'"}, [] { CheckedName("a\nb", "a value"); });
  ExpectError(Stage::Open, {"a name of 1025 bytes, expected at most 1024"},
              [] { CheckedName(std::string(1025, 'n'), "a value"); });
}

TEST(Within, PutsTheContextInFrontAndKeepsTheStage) {
  ExpectError(Stage::Load, {"outer: inner"},
              [] { Within([] { return std::string("outer"); }, [] { throw Error(Stage::Load, "inner"); }); });
  EXPECT_EQ(Within([] { return std::string("unused"); }, [] { return 3; }), 3);
}

}  // namespace
}  // namespace ulmora::engine::package
