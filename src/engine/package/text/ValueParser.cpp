#include "engine/package/text/ValueParser.h"

#include "engine/Error.h"
#include "engine/package/ElementDecoding.h"
#include "engine/package/Text.h"
#include "engine/package/text/Rounding.h"

#include <charconv>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace ulmora::engine::package::text {
namespace {

std::string Describe(const TensorType& type) {
  return std::string(NameOf(type.element)) + " " + ToString(type.shape);
}

[[noreturn]] void FailElement(const Token& token, ElementType type) {
  FailAt(token.at, Quoted(token.text) + " is no " + std::string(NameOf(type)));
}

/// A decimal or hexadecimal float, inf or nan, with a sign or without.
double ParseDouble(const Token& token, ElementType type) {
  std::string_view digits = token.text;
  const bool negative = digits.starts_with('-');
  if (negative || digits.starts_with('+')) digits.remove_prefix(1);
  auto format = std::chars_format::general;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    digits.remove_prefix(2);
    format = std::chars_format::hex;
  }
  double value = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value, format);
  if (error != std::errc() || stop != end || digits.starts_with('-')) FailElement(token, type);
  return negative ? -value : value;
}

template <typename T>
bool ParseWhole(std::string_view text, T& value) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end;
}

/// The integer, saturated to int32 if its type is wider.
std::int32_t ParseInteger(const Token& token, ElementType type) {
  if (type == ElementType::UInt64) {
    std::uint64_t value = 0;
    if (!ParseWhole(token.text, value)) FailElement(token, type);
    constexpr std::uint64_t kLargest = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::min(value, kLargest));
  }
  std::int64_t value = 0;
  if (!ParseWhole(token.text, value)) FailElement(token, type);
  const int bits = PackedBits(type);
  if (bits == 64) return Saturated(value);
  const bool isSigned = type == ElementType::Int4 || type == ElementType::Int8 || type == ElementType::Int16 ||
                        type == ElementType::Int32;
  const std::int64_t lowest = isSigned ? -(std::int64_t{1} << (bits - 1)) : 0;
  const std::int64_t highest = (std::int64_t{1} << (isSigned ? bits - 1 : bits)) - 1;
  if (value < lowest || value > highest) FailElement(token, type);
  return Saturated(value);
}

float ParseElement(const Token& token, ElementType type, float /*kind*/) {
  if (token.kind != TokenKind::Number && token.kind != TokenKind::Name) FailElement(token, type);
  return RoundedTo(type, ParseDouble(token, type));
}

std::int32_t ParseElement(const Token& token, ElementType type, std::int32_t /*kind*/) {
  if (token.kind != TokenKind::Number) FailElement(token, type);
  return ParseInteger(token, type);
}

std::uint8_t ParseElement(const Token& token, ElementType type, std::uint8_t /*kind*/) {
  if (token.kind != TokenKind::Name || (token.text != "true" && token.text != "false")) FailElement(token, type);
  return static_cast<std::uint8_t>(token.text == "true");
}

std::string ParseElement(const Token& token, ElementType type, const std::string& /*kind*/) {
  if (token.kind != TokenKind::String) FailElement(token, type);
  return Unquoted(token);
}

/// Reads nested brackets whose depth and counts are those of the type. They are at most limits::kMaxRank deep.
template <typename T>
class ElementsParser {
 public:
  ElementsParser(Lexer& lexer, const TensorType& type) : lexer_(lexer), type_(type) {}

  std::vector<T> Run() {
    Level(0);
    return std::move(elements_);
  }

 private:
  void Level(std::size_t dimension) {
    if (dimension == type_.shape.size()) {
      elements_.push_back(ParseElement(lexer_.Take(), type_.element, T{}));
      return;
    }
    const Position at = lexer_.Peek().at;
    lexer_.Expect("[");
    std::int64_t count = 0;
    if (!lexer_.Accept("]")) {
      do {
        // A tensor of no elements may have inner brackets of any number, and is not to be counted forever.
        if (++count > type_.shape[dimension]) FailCount(at, "more than", dimension);
        Level(dimension + 1);
      } while (lexer_.Accept(","));
      lexer_.Expect("]");
    }
    const bool isEmpty = ElementCount(type_.shape) == 0;
    if (count != type_.shape[dimension] && !(isEmpty && count == 0)) {
      FailCount(at, std::to_string(count) + " instead of", dimension);
    }
  }

  [[noreturn]] void FailCount(const Position& at, const std::string& found, std::size_t dimension) const {
    FailAt(at, "the list has " + found + " " + std::to_string(type_.shape[dimension]) + " entries in dimension " +
                   std::to_string(dimension) + " of " + Describe(type_));
  }

  Lexer& lexer_;
  const TensorType& type_;
  std::vector<T> elements_;
};

/// Puts the position in front of errors that know of none.
template <typename Action>
auto Located(const Position& at, const Action& action) -> decltype(action()) {
  const auto where = [&] { return "line " + std::to_string(at.line) + ", column " + std::to_string(at.column); };
  return Within(where, action);
}

Tensor ParseElements(Lexer& lexer, const TensorType& type) {
  switch (StorageOf(type.element)) {
    case Storage::Float:
      return Tensor::Floats(type.shape, ElementsParser<float>(lexer, type).Run(), type.element);
    case Storage::Int:
      return Tensor::Ints(type.shape, ElementsParser<std::int32_t>(lexer, type).Run(), type.element);
    case Storage::Bool:
      return Tensor::Bools(type.shape, ElementsParser<std::uint8_t>(lexer, type).Run());
    case Storage::String:
      break;
  }
  return Tensor::Strings(type.shape, ElementsParser<std::string>(lexer, type).Run());
}

/// The one word between the type and brackets of a scalar, as `string("x")` or `tensor<uint64, []>(64)`.
Token ParseScalar(Lexer& lexer, ElementType expected) {
  const Position at = lexer.Peek().at;
  const TextType type = ParseType(lexer);
  if (!type.isTensor || !type.type.shape.empty() || type.type.element != expected) {
    FailAt(at, "expected a scalar of type " + std::string(NameOf(expected)));
  }
  lexer.Expect("(");
  const Token token = lexer.Take();
  lexer.Expect(")");
  return token;
}

Tensor ParseRecord(Lexer& lexer, const TensorType& type, ConstantReader& constants) {
  const Position at = lexer.Take().at;
  lexer.Expect("(");
  lexer.ExpectWord("path");
  lexer.Expect("=");
  const std::string path = ParseElement(ParseScalar(lexer, ElementType::String), ElementType::String, std::string());
  lexer.Expect(",");
  lexer.ExpectWord("offset");
  lexer.Expect("=");
  const Token offsetToken = ParseScalar(lexer, ElementType::UInt64);
  std::uint64_t offset = 0;
  if (!ParseWhole(offsetToken.text, offset)) FailElement(offsetToken, ElementType::UInt64);
  lexer.Expect(")");
  return Located(at, [&] { return constants.ReadRecord(path, offset, type); });
}

}  // namespace

std::optional<Tensor> ParseValue(Lexer& lexer, ConstantReader& constants) {
  const Position at = lexer.Peek().at;
  const TextType type = ParseType(lexer);
  if (!type.isTensor) {
    if (!lexer.Peek().Is("(")) lexer.FailExpected("'('");
    lexer.SkipBrackets();
    return std::nullopt;
  }
  lexer.Expect("(");
  if (!IsStatic(type.type.shape)) FailAt(at, "is a constant whose shape is not known");
  const Token& first = lexer.Peek();
  std::optional<Tensor> tensor;
  if (first.kind == TokenKind::Name && first.text == "BLOBFILE") {
    tensor = ParseRecord(lexer, type.type, constants);
  } else {
    Located(at, [&] { constants.Account(type.type); });
    tensor = ParseElements(lexer, type.type);
  }
  lexer.Expect(")");
  return tensor;
}

}  // namespace ulmora::engine::package::text
