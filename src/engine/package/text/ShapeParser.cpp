#include "engine/package/text/ShapeParser.h"

#include "engine/Error.h"
#include "engine/Limits.h"
#include "engine/package/SizeRanges.h"
#include "engine/package/Text.h"

#include <charconv>
#include <optional>
#include <string>

namespace ulmora::engine::package::text {
namespace {

Token TakeNumber(Lexer& lexer) {
  if (lexer.Peek().kind != TokenKind::Number) lexer.FailExpected("a dimension");
  return lexer.Take();
}

/// The whole number that the token is, or nothing.
std::optional<std::int64_t> WholeNumber(const Token& token) {
  std::int64_t number = 0;
  const char* const end = token.text.data() + token.text.size();
  const auto [stop, error] = std::from_chars(token.text.data(), end, number);
  return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

std::int64_t ParseSize(Lexer& lexer, const ShapeRules& rules) {
  if (rules.mayBeOpen && lexer.Accept("?")) return kUnknownDim;
  const Token token = TakeNumber(lexer);
  const std::optional<std::int64_t> size = WholeNumber(token);
  if (!size || *size < rules.smallest || *size > limits::kMaxTensorElements) {
    FailAt(token.at, "a dimension has size " + Quoted(token.text) + ", expected " + std::to_string(rules.smallest) +
                         " to " + std::to_string(limits::kMaxTensorElements));
  }
  return *size;
}

SizeRange ParseRange(Lexer& lexer) {
  const Position at = lexer.Peek().at;
  lexer.Expect("[");
  const Token least = TakeNumber(lexer);
  lexer.Expect(",");
  const Token most = TakeNumber(lexer);
  lexer.Expect("]");
  const std::optional<std::int64_t> lower = WholeNumber(least);
  const std::optional<std::int64_t> upper = WholeNumber(most);
  if (!lower || !upper || *lower < 0) {
    FailAt(at, "a dimension has size " + Quoted(least.text) + " to " + Quoted(most.text) + ", expected whole numbers");
  }
  try {
    return CheckedRange(static_cast<std::uint64_t>(*lower), *upper);
  } catch (const Error& error) {
    FailAt(at, error.what());
  }
}

/// A list in brackets, of at most `most` items.
template <typename Parse>
auto ParseList(Lexer& lexer, std::size_t most, const char* what, const Parse& parse) {
  const Position at = lexer.Peek().at;
  std::vector<decltype(parse())> items;
  lexer.Expect("[");
  if (lexer.Accept("]")) return items;
  do {
    items.push_back(parse());
    if (items.size() > most) FailAt(at, "there are more than " + std::to_string(most) + " " + what);
  } while (lexer.Accept(","));
  lexer.Expect("]");
  return items;
}

}  // namespace

Shape ParseShape(Lexer& lexer, const ShapeRules& rules) {
  const Position at = lexer.Peek().at;
  lexer.Expect("[");
  Shape shape;
  if (lexer.Accept("]")) return shape;
  do {
    shape.push_back(ParseSize(lexer, rules));
    if (shape.size() > static_cast<std::size_t>(limits::kMaxRank)) {
      FailAt(at, std::string(rules.owner) + " has more than " + std::to_string(limits::kMaxRank) + " dimensions");
    }
  } while (lexer.Accept(","));
  lexer.Expect("]");
  return shape;
}

std::vector<Shape> ParseShapes(Lexer& lexer, const ShapeRules& rules) {
  return ParseList(lexer, limits::kMaxEnumeratedShapes, "shapes", [&] { return ParseShape(lexer, rules); });
}

std::vector<SizeRange> ParseRanges(Lexer& lexer) {
  return ParseList(lexer, limits::kMaxRank, "ranges", [&] { return ParseRange(lexer); });
}

}  // namespace ulmora::engine::package::text
