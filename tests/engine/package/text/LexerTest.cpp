#include "engine/Limits.h"
#include "tests/engine/package/text/TextTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::package::text {
namespace {

using package::testing::ExpectError;
using ::testing::ElementsAre;

std::vector<std::string> Words(const std::string& text, TokenKind kind) {
  std::vector<std::string> words;
  for (Lexer lexer(text); lexer.Peek().kind != TokenKind::End;) {
    const Token token = lexer.Take();
    EXPECT_EQ(token.kind, kind) << token.text;
    words.emplace_back(token.text);
  }
  return words;
}

std::string Text(const std::string& quoted) {
  return Unquoted(Lexer(quoted).Peek());
}

void ExpectRefused(const std::string& text, const std::string& message) {
  ExpectError(Stage::Open, {message}, [&] {
    for (Lexer lexer(text); lexer.Peek().kind != TokenKind::End;) static_cast<void>(lexer.Take());
  });
}

TEST(Lexer, NothingIsTheEnd) {
  for (const char* text : {"", " \t\r\n", "// remark", "// remark\n"}) {
    EXPECT_EQ(Lexer(text).Peek().kind, TokenKind::End) << text;
  }
}

TEST(Lexer, NamesAndSymbols) {
  EXPECT_THAT(Words("a _b1 c@d E", TokenKind::Name), ElementsAre("a", "_b1", "c@d", "E"));
  EXPECT_THAT(Words("(,)->[=]{;}<?>.", TokenKind::Symbol),
              ElementsAre("(", ",", ")", "->", "[", "=", "]", "{", ";", "}", "<", "?", ">", "."));
}

TEST(Lexer, Numbers) {
  EXPECT_THAT(Words("0 -12 +3 1.5 .5 5. 1e-3 1E+3 0x1.8p-2 -0X1P+3 -inf +nan 0x1p-24", TokenKind::Number),
              ElementsAre("0", "-12", "+3", "1.5", ".5", "5.", "1e-3", "1E+3", "0x1.8p-2", "-0X1P+3", "-inf", "+nan",
                          "0x1p-24"));
  EXPECT_THAT(Words("inf nan true", TokenKind::Name), ElementsAre("inf", "nan", "true"));
}

TEST(Lexer, ASignEndsANumberUnlessItBelongsToTheExponent) {
  EXPECT_THAT(Words("1-2", TokenKind::Number), ElementsAre("1", "-2"));
  // "e" is a digit of a hexadecimal number.
  EXPECT_THAT(Words("0x1e-2", TokenKind::Number), ElementsAre("0x1e", "-2"));
}

TEST(Lexer, PositionsCountLinesAndColumns) {
  Lexer lexer("a\n  bc // d\r\n\"e\" f");
  const auto expectAt = [&](std::int64_t line, std::int64_t column) {
    const Token token = lexer.Take();
    EXPECT_EQ(token.at.line, line) << token.text;
    EXPECT_EQ(token.at.column, column) << token.text;
  };
  expectAt(1, 1);
  expectAt(2, 3);
  expectAt(3, 1);
  expectAt(3, 5);
  expectAt(3, 6);
}

TEST(Lexer, StringsWithEscapes) {
  EXPECT_EQ(Text("\"\""), "");
  EXPECT_EQ(Text("\"@model_path/weights\""), "@model_path/weights");
  EXPECT_EQ(Text(R"("a\"b\\c\/d\'e")"), "a\"b\\c/d'e");
  EXPECT_EQ(Text(R"("\n\r\t\b\f\v\a")"), "\n\r\t\b\f\v\a");
  EXPECT_EQ(Text(R"("\0")"), std::string(1, '\0'));
  EXPECT_EQ(Text(R"("\x41\x7a")"), "Az");
  EXPECT_EQ(Text(R"("\u0041\u00e9\u20ac")"), "A\xC3\xA9\xE2\x82\xAC");
  EXPECT_EQ(Text("\"\\\\\""), "\\");
}

TEST(Lexer, UnknownEscapesAreRefused) {
  for (const char* text : {R"("\q")", R"("\x4")", R"("\xg0")", R"("\u12")", R"("\u+123")"}) {
    ExpectError(Stage::Open, {"line 1, column 1: unknown escape '\\"}, [&] { static_cast<void>(Text(text)); });
  }
}

TEST(Lexer, StringsEndInTheirLine) {
  for (const char* text : {"\"", "\"abc", "\"a\nb\"", R"("a\")", "\"a\\\nb\""}) {
    ExpectRefused(std::string("x\n ") + text, "line 2, column 2: the string does not end in its line");
  }
}

TEST(Lexer, CharactersThatBeginNoWord) {
  ExpectRefused("a $", "line 1, column 3: unexpected character '$'");
  ExpectRefused("/a", "line 1, column 1: unexpected character '/'");
  ExpectRefused("a -", "line 1, column 3: unexpected character '-'");
  ExpectRefused("\x01", "unexpected character '?'");
  ExpectRefused(std::string(1, '\0'), "unexpected character '?'");
}

TEST(Lexer, ExpectationsSayWhatWasFound) {
  ExpectError(Stage::Open, {"line 1, column 1: expected '(', found 'x'"}, [] { Lexer("x").Expect("("); });
  ExpectError(Stage::Open, {"expected a name, found '1'"}, [] { static_cast<void>(Lexer("1").ExpectName("a name")); });
  ExpectError(Stage::Open, {"line 1, column 2: expected 'func', found the end of the text"},
              [] { Lexer(" ").ExpectWord("func"); });
  ExpectError(Stage::Open, {"a name has a name of 2000 bytes"},
              [] { static_cast<void>(Lexer(std::string(2000, 'a')).ExpectName("a name")); });
}

TEST(Lexer, BracketsAreSkippedAsAWhole) {
  Lexer lexer("<a, [1, {\")\"}], (2) -> > b");
  lexer.SkipBrackets();
  EXPECT_EQ(lexer.Take().text, "b");
  Lexer items("x (1, 2) y");
  items.SkipItem();
  items.SkipItem();
  EXPECT_EQ(items.Take().text, "y");
}

TEST(Lexer, BracketsMustMatch) {
  const auto skip = [](const std::string& text) { return [text] { Lexer(text).SkipBrackets(); }; };
  ExpectError(Stage::Open, {"line 1, column 5: expected ']', found ')'"}, skip("([1,)]"));
  ExpectError(Stage::Open, {"the text ends within brackets"}, skip("(1"));
  ExpectError(Stage::Open, {"expected a bracket"}, skip("x"));
  ExpectError(Stage::Open, {"expected a bracket"}, skip(")"));
}

TEST(Lexer, BracketsAreNestedToABound) {
  const std::string open(limits::kMaxTextNesting, '(');
  const std::string close(limits::kMaxTextNesting, ')');
  const std::string both = open + close;
  Lexer deepest(both);
  EXPECT_NO_THROW(deepest.SkipBrackets());
  ExpectError(Stage::Open, {"brackets are nested more than 64 deep"}, [&] { Lexer("[" + open).SkipBrackets(); });
}

}  // namespace
}  // namespace ulmora::engine::package::text
