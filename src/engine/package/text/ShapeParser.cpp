#include "engine/package/text/ShapeParser.h"

#include "engine/Limits.h"
#include "engine/package/Text.h"

#include <charconv>
#include <string>

namespace ulmora::engine::package::text {
namespace {

std::int64_t ParseSize(Lexer& lexer, const ShapeRules& rules) {
  if (rules.mayBeOpen && lexer.Accept("?")) return kUnknownDim;
  if (lexer.Peek().kind != TokenKind::Number) lexer.FailExpected("a dimension");
  const Token token = lexer.Take();
  std::int64_t size = 0;
  const char* const end = token.text.data() + token.text.size();
  const auto [stop, error] = std::from_chars(token.text.data(), end, size);
  if (error != std::errc() || stop != end || size < rules.smallest || size > limits::kMaxTensorElements) {
    FailAt(token.at, "a dimension has size " + Quoted(token.text) + ", expected " + std::to_string(rules.smallest) +
                         " to " + std::to_string(limits::kMaxTensorElements));
  }
  return size;
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

}  // namespace ulmora::engine::package::text
