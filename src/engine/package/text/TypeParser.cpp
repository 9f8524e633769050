#include "engine/package/text/TypeParser.h"

#include "engine/package/Text.h"
#include "engine/package/text/ShapeParser.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>

namespace ulmora::engine::package::text {
namespace {

constexpr std::array<std::string_view, 4> kOtherTypes = {"list", "tuple", "dict", "state"};

std::optional<ElementType> ElementOf(std::string_view word) {
  using enum ElementType;
  static constexpr std::pair<std::string_view, ElementType> kWords[] = {
      {"bool", Bool},          {"string", String}, {"fp16", Float16},
      {"fp32", Float32},       {"fp64", Float64},  {"bf16", BFloat16},
      {"int4", Int4},          {"int8", Int8},     {"int16", Int16},
      {"int32", Int32},        {"int64", Int64},   {"uint1", UInt1},
      {"uint2", UInt2},        {"uint3", UInt3},   {"uint4", UInt4},
      {"uint6", UInt6},        {"uint8", UInt8},   {"uint16", UInt16},
      {"uint32", UInt32},      {"uint64", UInt64}, {"fp8e4m3fn", Float8E4M3FN},
      {"fp8e5m2", Float8E5M2},
  };
  const auto* found = std::ranges::find(kWords, word, &std::pair<std::string_view, ElementType>::first);
  if (found == std::end(kWords)) return std::nullopt;
  return found->second;
}

constexpr ShapeRules kTensorShape = {.owner = "a tensor type", .smallest = 0, .mayBeOpen = true};

ElementType ParseElement(Lexer& lexer) {
  const Token word = lexer.ExpectName("an element type");
  const std::optional<ElementType> element = ElementOf(word.text);
  if (!element) FailAt(word.at, "unknown element type " + Quoted(word.text));
  return *element;
}

TensorType ParseTensor(Lexer& lexer) {
  lexer.Expect("<");
  TensorType type;
  type.element = ParseElement(lexer);
  lexer.Expect(",");
  type.shape = ParseShape(lexer, kTensorShape);
  while (!lexer.Peek().Is(">")) lexer.SkipItem();
  lexer.Expect(">");
  return type;
}

}  // namespace

bool IsTypeWord(std::string_view word) noexcept {
  return word == "tensor" || std::ranges::find(kOtherTypes, word) != kOtherTypes.end() || ElementOf(word).has_value();
}

TextType ParseType(Lexer& lexer) {
  TextType result;
  if (lexer.Peek().kind != TokenKind::Name) lexer.FailExpected("a type");
  const std::string_view word = lexer.Peek().text;
  if (std::ranges::find(kOtherTypes, word) != kOtherTypes.end()) {
    static_cast<void>(lexer.Take());
    result.isTensor = false;
    if (!lexer.Peek().Is("<")) lexer.FailExpected("'<'");
    lexer.SkipBrackets();
  } else if (word == "tensor") {
    static_cast<void>(lexer.Take());
    result.type = ParseTensor(lexer);
  } else {
    result.type.element = ParseElement(lexer);
  }
  if (lexer.Peek().Is("[")) lexer.SkipBrackets();
  return result;
}

}  // namespace ulmora::engine::package::text
