#include "engine/package/text/Lexer.h"

#include "engine/Error.h"
#include "engine/Limits.h"
#include "engine/package/Text.h"

#include <charconv>
#include <vector>

namespace ulmora::engine::package::text {
namespace {

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

bool IsNameStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool IsNamePart(char c) {
  return IsNameStart(c) || IsDigit(c) || c == '@';
}

constexpr std::string_view kSymbols = "()[]{}<>,=;?.";

/// The bracket that closes `open`, or 0 if it opens nothing.
char ClosingOf(const Token& open) {
  if (open.kind != TokenKind::Symbol || open.text.size() != 1) return 0;
  switch (open.text.front()) {
    case '(':
      return ')';
    case '[':
      return ']';
    case '{':
      return '}';
    case '<':
      return '>';
    default:
      return 0;
  }
}

bool Closes(const Token& token) {
  return token.Is(")") || token.Is("]") || token.Is("}") || token.Is(">");
}

/// The character of a simple escape, or -1.
int SimpleEscape(char c) {
  constexpr std::string_view kLetters = "\"\\'/nrtbfva0";
  constexpr std::string_view kMeanings{"\"\\'/\n\r\t\b\f\v\a\0", 12};
  const std::size_t index = kLetters.find(c);
  return index == std::string_view::npos ? -1 : static_cast<unsigned char>(kMeanings[index]);
}

void AppendUtf8(std::string& text, unsigned code) {
  const auto append = [&](unsigned byte) { text += static_cast<char>(byte); };
  if (code < 0x80) {
    append(code);
  } else if (code < 0x800) {
    append(0xC0U | (code >> 6));
    append(0x80U | (code & 0x3FU));
  } else {
    append(0xE0U | (code >> 12));
    append(0x80U | ((code >> 6) & 0x3FU));
    append(0x80U | (code & 0x3FU));
  }
}

}  // namespace

void FailAt(const Position& at, const std::string& message) {
  throw Error(Stage::Open,
              "line " + std::to_string(at.line) + ", column " + std::to_string(at.column) + ": " + message);
}

Lexer::Lexer(std::string_view text) : text_(text) {
  Advance();
}

Token Lexer::Take() {
  const Token token = next_;
  Advance();
  return token;
}

bool Lexer::Accept(std::string_view symbol) {
  if (!next_.Is(symbol)) return false;
  Advance();
  return true;
}

void Lexer::Expect(std::string_view symbol) {
  if (!Accept(symbol)) FailExpected("'" + std::string(symbol) + "'");
}

Token Lexer::ExpectName(const char* what) {
  if (next_.kind != TokenKind::Name) FailExpected(what);
  static_cast<void>(CheckedName(std::string(next_.text), what));
  return Take();
}

void Lexer::ExpectWord(std::string_view word) {
  if (next_.kind != TokenKind::Name || next_.text != word) FailExpected("'" + std::string(word) + "'");
  Advance();
}

void Lexer::SkipBrackets() {
  std::vector<char> open;
  do {
    const Token token = Take();
    if (const char closing = ClosingOf(token); closing != 0) {
      if (open.size() >= limits::kMaxTextNesting) {
        FailAt(token.at, "brackets are nested more than " + std::to_string(limits::kMaxTextNesting) + " deep");
      }
      open.push_back(closing);
    } else if (token.kind == TokenKind::End || open.empty()) {
      FailAt(token.at, open.empty() ? "expected a bracket" : "the text ends within brackets");
    } else if (Closes(token)) {
      if (token.text.front() != open.back()) {
        FailAt(token.at, "expected '" + std::string(1, open.back()) + "', found " + Quoted(token.text));
      }
      open.pop_back();
    }
  } while (!open.empty());
}

void Lexer::SkipItem() {
  if (ClosingOf(next_) != 0) {
    SkipBrackets();
  } else if (next_.kind == TokenKind::End || Closes(next_)) {
    FailExpected("a word or an opening bracket");
  } else {
    static_cast<void>(Take());
  }
}

void Lexer::FailExpected(const std::string& what) const {
  const bool atEnd = next_.kind == TokenKind::End;
  FailAt(next_.at, "expected " + what + ", found " + (atEnd ? "the end of the text" : Quoted(next_.text)));
}

char Lexer::At(std::size_t offset) const noexcept {
  return offset < text_.size() ? text_[offset] : '\0';
}

void Lexer::SkipBlanks() noexcept {
  while (position_ < text_.size()) {
    const char c = text_[position_];
    if (c == '\n') {
      ++line_;
      lineStart_ = position_ + 1;
    } else if (c == '/' && At(position_ + 1) == '/') {
      // Up to the line break, which counts as a blank of its own.
      while (position_ + 1 < text_.size() && text_[position_ + 1] != '\n') ++position_;
    } else if (c != ' ' && c != '\t' && c != '\r') {
      return;
    }
    ++position_;
  }
}

void Lexer::Advance() {
  SkipBlanks();
  next_ = {TokenKind::End, {}, {line_, static_cast<std::int64_t>(position_ - lineStart_) + 1}};
  if (position_ == text_.size()) return;
  const char c = text_[position_];
  std::size_t length = 1;
  if (IsNameStart(c)) {
    next_.kind = TokenKind::Name;
    while (IsNamePart(At(position_ + length))) ++length;
  } else if (c == '-' && At(position_ + 1) == '>') {
    next_.kind = TokenKind::Symbol;
    length = 2;
  } else if (const std::size_t digits = LengthOfNumber(); digits > 0) {
    next_.kind = TokenKind::Number;
    length = digits;
  } else if (c == '"') {
    next_.kind = TokenKind::String;
    length = LengthOfString();
  } else if (kSymbols.find(c) != std::string_view::npos) {
    next_.kind = TokenKind::Symbol;
  } else {
    FailAt(next_.at, "unexpected character " + Quoted(std::string_view(&c, 1)));
  }
  next_.text = text_.substr(position_, length);
  position_ += length;
}

std::size_t Lexer::LengthOfNumber() const noexcept {
  const char first = At(position_);
  std::size_t length = first == '-' || first == '+' ? 1 : 0;
  const char lead = At(position_ + length);
  const bool isSigned = length > 0;
  if (!IsDigit(lead) && !(lead == '.' && IsDigit(At(position_ + length + 1))) && !(isSigned && IsNameStart(lead))) {
    return 0;
  }
  const bool isHexadecimal = lead == '0' && (At(position_ + length + 1) | 0x20) == 'x';
  for (;; ++length) {
    const char c = At(position_ + length);
    if (IsNameStart(c) || IsDigit(c) || c == '.') continue;
    // A sign belongs to the number right behind the letter of its exponent.
    const char before = static_cast<char>(At(position_ + length - 1) | 0x20);
    if ((c != '-' && c != '+') || length < 2 || before != (isHexadecimal ? 'p' : 'e')) return length;
  }
}

std::size_t Lexer::LengthOfString() const {
  for (std::size_t length = 1;; ++length) {
    const char c = At(position_ + length);
    if (position_ + length >= text_.size() || c == '\n') FailAt(next_.at, "the string does not end in its line");
    if (c == '"') return length + 1;
    // The escaped character may be a quote; a line break must still be seen.
    if (c == '\\' && At(position_ + length + 1) != '\n') ++length;
  }
}

std::string Unquoted(const Token& string) {
  const std::string_view body = string.text.substr(1, string.text.size() - 2);
  std::string result;
  result.reserve(body.size());
  for (std::size_t i = 0; i < body.size(); ++i) {
    if (body[i] != '\\') {
      result += body[i];
      continue;
    }
    // The lexer ends no string behind a backslash, so there is a character.
    const char letter = body[++i];
    const std::size_t digits = letter == 'x' ? 2 : letter == 'u' ? 4 : 0;
    unsigned code = 0;
    const char* const begin = body.data() + i + 1;
    if (digits > 0 && i + digits < body.size() &&
        std::from_chars(begin, begin + digits, code, 16).ptr == begin + digits) {
      letter == 'x' ? static_cast<void>(result += static_cast<char>(code)) : AppendUtf8(result, code);
      i += digits;
    } else if (const int meaning = SimpleEscape(letter); meaning >= 0) {
      result += static_cast<char>(meaning);
    } else {
      FailAt(string.at, "unknown escape " + Quoted(body.substr(i - 1, 2 + digits)) + " in a string");
    }
  }
  return result;
}

}  // namespace ulmora::engine::package::text
