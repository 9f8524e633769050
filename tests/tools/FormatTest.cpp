#include "tools/Format.h"

#include <gtest/gtest.h>

#include <sstream>

namespace ulmora::tools {
namespace {

TEST(Format, GroupsOfThree) {
  EXPECT_EQ(Grouped(0), "0");
  EXPECT_EQ(Grouped(999), "999");
  EXPECT_EQ(Grouped(1000), "1,000");
  EXPECT_EQ(Grouped(-123456), "-123,456");
  EXPECT_EQ(Grouped(1234567), "1,234,567");
}

TEST(Format, FixedDigits) {
  EXPECT_EQ(Fixed(1.25, 1), "1.2");
  EXPECT_EQ(Fixed(2, 3), "2.000");
}

TEST(Format, ControlCharactersAreNotPrinted) {
  EXPECT_EQ(Printable("a\x1B[2Jb\n"), "a?[2Jb?");
}

TEST(Format, TablesAreAligned) {
  std::ostringstream stream;
  WriteTable(stream, {Align::Left, Align::Right, Align::Left}, {{"a", "1", "x"}, {"long", "1000", ""}});
  EXPECT_EQ(stream.str(), "  a        1  x\n  long  1000\n");
}

}  // namespace
}  // namespace ulmora::tools
