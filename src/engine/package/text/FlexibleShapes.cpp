#include "engine/package/text/FlexibleShapes.h"

#include "engine/Limits.h"
#include "engine/package/SourceChecks.h"
#include "engine/package/Text.h"

#include <charconv>

namespace ulmora::engine::package::text {
namespace {

std::int64_t ParseSize(Lexer& lexer) {
  if (lexer.Peek().kind != TokenKind::Number) lexer.FailExpected("a dimension");
  const Token token = lexer.Take();
  std::int64_t size = 0;
  const char* const end = token.text.data() + token.text.size();
  const auto [stop, error] = std::from_chars(token.text.data(), end, size);
  if (error != std::errc() || stop != end || size < 1 || size > limits::kMaxTensorElements) {
    FailAt(token.at, "a dimension has size " + Quoted(token.text) + ", expected 1 to " +
                         std::to_string(limits::kMaxTensorElements));
  }
  return size;
}

Shape ParseShape(Lexer& lexer) {
  const Position at = lexer.Peek().at;
  lexer.Expect("[");
  Shape shape;
  if (lexer.Accept("]")) return shape;
  do {
    shape.push_back(ParseSize(lexer));
    if (shape.size() > static_cast<std::size_t>(limits::kMaxRank)) {
      FailAt(at, "a shape has more than " + std::to_string(limits::kMaxRank) + " dimensions");
    }
  } while (lexer.Accept(","));
  lexer.Expect("]");
  return shape;
}

std::string ParseString(Lexer& lexer) {
  if (lexer.Peek().kind != TokenKind::String) lexer.FailExpected("a string");
  return Unquoted(lexer.Take());
}

/// {{"image", [1, 3, 64, 64]}, ...}
std::map<std::string, Shape> ParseShapes(Lexer& lexer) {
  std::map<std::string, Shape> shapes;
  lexer.Expect("{");
  if (lexer.Accept("}")) return shapes;
  do {
    lexer.Expect("{");
    const std::string name = ParseString(lexer);
    lexer.Expect(",");
    shapes[name] = ParseShape(lexer);
    lexer.Expect("}");
    CheckCount(static_cast<std::int64_t>(shapes.size()), limits::kMaxOperands, "default shapes");
  } while (lexer.Accept(","));
  lexer.Expect("}");
  return shapes;
}

/// (("DefaultShapes", ...), ("RangeDims", ...)), within one more pair of parentheses or not.
std::map<std::string, Shape> ParseInformation(Lexer& lexer) {
  std::map<std::string, Shape> shapes;
  std::size_t depth = 0;
  do {
    if (lexer.Accept("(")) {
      if (++depth > limits::kMaxTextNesting) lexer.FailExpected("fewer brackets");
    } else if (lexer.Accept(")")) {
      --depth;
    } else if (lexer.Peek().kind == TokenKind::String) {
      const bool isDefaults = ParseString(lexer) == "DefaultShapes";
      lexer.Expect(",");
      if (isDefaults) {
        shapes = ParseShapes(lexer);
      } else if (!lexer.Peek().Is("(")) {
        lexer.SkipItem();
      }
    } else {
      lexer.Expect(",");
    }
  } while (depth > 0);
  return shapes;
}

/// Anything from a type's first word up to the parentheses behind it.
void SkipType(Lexer& lexer) {
  static_cast<void>(lexer.ExpectName("a type"));
  if (lexer.Peek().Is("<")) lexer.SkipBrackets();
  if (lexer.Peek().Is("[")) lexer.SkipBrackets();
  if (!lexer.Peek().Is("(")) lexer.FailExpected("'('");
}

}  // namespace

std::map<std::string, Shape> ParseDefaultShapes(Lexer& lexer) {
  std::map<std::string, Shape> shapes;
  lexer.Expect("[");
  if (lexer.Accept("]")) return shapes;
  do {
    const Token name = lexer.ExpectName("an attribute");
    lexer.Expect("=");
    SkipType(lexer);
    if (name.text == "FlexibleShapeInformation") {
      shapes = ParseInformation(lexer);
    } else {
      lexer.SkipBrackets();
    }
  } while (lexer.Accept(","));
  lexer.Expect("]");
  return shapes;
}

}  // namespace ulmora::engine::package::text
