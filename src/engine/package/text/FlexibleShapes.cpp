#include "engine/package/text/FlexibleShapes.h"

#include "engine/Limits.h"
#include "engine/package/SourceChecks.h"
#include "engine/package/text/ShapeParser.h"

#include <algorithm>

namespace ulmora::engine::package::text {
namespace {

constexpr ShapeRules kShape = {.owner = "a shape", .smallest = 1, .mayBeOpen = false};

std::string ParseString(Lexer& lexer) {
  if (lexer.Peek().kind != TokenKind::String) lexer.FailExpected("a string");
  return Unquoted(lexer.Take());
}

/// {{"name", item}, ...}; `take(name)` takes each item.
template <typename Take>
void ParseTable(Lexer& lexer, std::int64_t most, const char* what, const Take& take) {
  lexer.Expect("{");
  if (lexer.Accept("}")) return;
  std::int64_t count = 0;
  do {
    CheckCount(++count, most, what);
    lexer.Expect("{");
    const std::string name = ParseString(lexer);
    lexer.Expect(",");
    take(name);
    lexer.Expect("}");
  } while (lexer.Accept(","));
  lexer.Expect("}");
}

void ParseDefaults(Lexer& lexer, FlexibleShapes& result) {
  ParseTable(lexer, limits::kMaxOperands, "default shapes",
             [&](const std::string& name) { result.defaults[name] = ParseShape(lexer, kShape); });
}

void ParseRangeDims(Lexer& lexer, FlexibleShapes& result) {
  ParseTable(lexer, limits::kMaxOperands, "ranged inputs",
             [&](const std::string& name) { result.ranges[name] = ParseRanges(lexer); });
}

void ParseSets(Lexer& lexer, FlexibleShapes& result) {
  std::int64_t total = 0;
  const auto takeShape = [&](const std::string& name) {
    CheckCount(++total, limits::kMaxOperands, "shapes in sets");
    std::vector<Shape>& shapes = result.enumerated[name];
    Shape shape = ParseShape(lexer, kShape);
    if (std::ranges::find(shapes, shape) == shapes.end()) shapes.push_back(std::move(shape));
  };
  ParseTable(lexer, limits::kMaxEnumeratedShapes, "sets of shapes",
             [&](const std::string&) { ParseTable(lexer, limits::kMaxOperands, "shapes in a set", takeShape); });
}

void ParseEntry(Lexer& lexer, FlexibleShapes& result) {
  const std::string name = ParseString(lexer);
  lexer.Expect(",");
  if (name == "DefaultShapes") return ParseDefaults(lexer, result);
  if (name == "RangeDims") return ParseRangeDims(lexer, result);
  if (name == "EnumeratedShapes") return ParseSets(lexer, result);
  if (!lexer.Peek().Is("(")) lexer.SkipItem();
}

/// (("DefaultShapes", ...), ("RangeDims", ...)), within one more pair of parentheses or not.
FlexibleShapes ParseInformation(Lexer& lexer) {
  FlexibleShapes result;
  std::size_t depth = 0;
  do {
    if (lexer.Accept("(")) {
      if (++depth > limits::kMaxTextNesting) lexer.FailExpected("fewer brackets");
    } else if (lexer.Accept(")")) {
      --depth;
    } else if (lexer.Peek().kind == TokenKind::String) {
      ParseEntry(lexer, result);
    } else {
      lexer.Expect(",");
    }
  } while (depth > 0);
  return result;
}

/// Anything from a type's first word up to the parentheses behind it.
void SkipType(Lexer& lexer) {
  static_cast<void>(lexer.ExpectName("a type"));
  if (lexer.Peek().Is("<")) lexer.SkipBrackets();
  if (lexer.Peek().Is("[")) lexer.SkipBrackets();
  if (!lexer.Peek().Is("(")) lexer.FailExpected("'('");
}

}  // namespace

FlexibleShapes ParseFlexibleShapes(Lexer& lexer) {
  FlexibleShapes shapes;
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
