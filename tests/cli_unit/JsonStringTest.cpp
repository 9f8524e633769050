#include "cli/JsonString.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

namespace ulmora::cli {
namespace {

std::string Json(const std::string& text) {
  std::ostringstream stream;
  JsonString(stream, text);
  return stream.str();
}

TEST(JsonString, QuotesPlainText) {
  EXPECT_EQ(Json(""), "\"\"");
  EXPECT_EQ(Json("a b/c"), "\"a b/c\"");
}

TEST(JsonString, EscapesWhatHasAShortForm) {
  EXPECT_EQ(Json("\"\\\b\f\n\r\t"), R"("\"\\\b\f\n\r\t")");
}

TEST(JsonString, EscapesOtherControlBytesInLowerCaseHexadecimal) {
  EXPECT_EQ(Json(std::string("\0\x01\x0b\x1f", 4)), R"("\u0000\u0001\u000b\u001f")");
}

TEST(JsonString, LeavesBytesFrom32UpUntouched) {
  EXPECT_EQ(Json(" \x7f\xc3\xa9\xff"), "\" \x7f\xc3\xa9\xff\"");
}

TEST(JsonString, LeavesTheStreamsFormatAsItWas) {
  std::ostringstream stream;
  stream << std::setfill('*') << std::left << std::showbase << std::uppercase;
  JsonString(stream, "\x1a");
  stream << std::setw(4) << 26;
  EXPECT_EQ(stream.str(), "\"\\u001a\"26**");
}

}  // namespace
}  // namespace ulmora::cli
