#pragma once
// The words of a textual program, one at a time.
//
//   1. Blanks, line breaks and comments ("//" to the end of the line) only separate words.
//   2. name   = letter or "_", then letters, digits, "_" and "@"
//   3. number = [ "-" | "+" ] then a digit, ".", or one of the names inf and nan: decimal or, as C99 writes them,
//               hexadecimal floats. What it means is for the type that it stands in to say.
//   4. string = between double quotes, without line breaks; backslash escapes as in C and JSON
//   5. symbol = one of ( ) [ ] { } < > , = ; ? . and "->"

#include <cstdint>
#include <string>
#include <string_view>

namespace ulmora::engine::package::text {

/// Where a word begins, both from 1; columns count bytes.
struct Position {
  std::int64_t line = 1;
  std::int64_t column = 1;
};

enum class TokenKind : std::uint8_t { Name, Number, String, Symbol, End };

struct Token {
  TokenKind kind = TokenKind::End;
  std::string_view text;  ///< as written, strings with their quotes; lives as long as the program's text
  Position at;

  [[nodiscard]] bool Is(std::string_view symbol) const noexcept { return kind == TokenKind::Symbol && text == symbol; }
};

/// Throws Error(Open) "line 3, column 7: <message>".
[[noreturn]] void FailAt(const Position& at, const std::string& message);

/// A cursor over the words of a text, looking one word ahead. A plain value: a copy remembers a place in the text.
class Lexer {
 public:
  /// `text` must outlive the lexer and every token of it. Throws Error(Open) for a character that begins no word and
  /// for a string that does not end in its line; so do the other functions as they go on.
  explicit Lexer(std::string_view text);

  /// The next word, without taking it.
  [[nodiscard]] const Token& Peek() const noexcept { return next_; }
  Token Take();

  /// Takes the next word if it is this symbol.
  bool Accept(std::string_view symbol);
  /// Takes the next word, which must be this symbol, a name, or this very name. Throws Error(Open) otherwise.
  void Expect(std::string_view symbol);
  Token ExpectName(const char* what);
  void ExpectWord(std::string_view word);

  /// Takes an opening bracket and everything up to the one that closes it. Throws Error(Open) for brackets that do not
  /// match or are nested deeper than limits::kMaxTextNesting.
  void SkipBrackets();

  /// Takes one word, or everything within brackets if it is an opening one. Throws Error(Open) for a closing
  /// one, at the end of the text, and as SkipBrackets does.
  void SkipItem();

  /// "expected <what>, found <next word>" at the next word.
  [[noreturn]] void FailExpected(const std::string& what) const;

 private:
  [[nodiscard]] char At(std::size_t offset) const noexcept;
  void SkipBlanks() noexcept;
  void Advance();
  [[nodiscard]] std::size_t LengthOfNumber() const noexcept;
  [[nodiscard]] std::size_t LengthOfString() const;

  std::string_view text_;
  std::size_t position_ = 0;  ///< behind next_
  std::size_t lineStart_ = 0;
  std::int64_t line_ = 1;
  Token next_;
};

/// The characters that a string token stands for. Throws Error(Open) for an escape that nobody knows.
[[nodiscard]] std::string Unquoted(const Token& string);

}  // namespace ulmora::engine::package::text
