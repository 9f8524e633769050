#include "engine/package/text/FlexibleShapes.h"

#include "engine/Limits.h"
#include "engine/package/SourceChecks.h"
#include "engine/package/text/ShapeParser.h"

namespace ulmora::engine::package::text {
namespace {

constexpr ShapeRules kDefaultShape = {.owner = "a shape", .smallest = 1, .mayBeOpen = false};

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
    shapes[name] = ParseShape(lexer, kDefaultShape);
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
