#include "engine/package/text/StatementParser.h"

#include "engine/Limits.h"
#include "engine/package/SourceChecks.h"
#include "engine/package/Text.h"
#include "engine/package/text/TypeParser.h"
#include "engine/package/text/ValueParser.h"

#include <optional>
#include <string>
#include <utility>

namespace ulmora::engine::package::text {
namespace {

class StatementParser {
 public:
  StatementParser(Lexer& lexer, ConstantReader& constants) : lexer_(lexer), constants_(constants) {}

  SourceOperation Run() {
    ParseResults();
    operation_.type = std::string(lexer_.ExpectName("an operation").text);
    // A version may stand behind the name.
    if (lexer_.Peek().Is("<")) lexer_.SkipBrackets();
    ParseInputs();
    if (lexer_.Peek().Is("[")) ParseAttributes();
    if (operation_.name.empty() && !operation_.results.empty()) operation_.name = operation_.results.front().name;
    if (lexer_.Peek().Is("{")) SkipBlocks();
    lexer_.Expect(";");
    return std::move(operation_);
  }

 private:
  /// Statements without results begin with their operation, which is no word for a type.
  void ParseResults() {
    if (lexer_.Peek().kind != TokenKind::Name) lexer_.FailExpected("a statement");
    if (!IsTypeWord(lexer_.Peek().text)) return;
    do {
      operation_.results.push_back(ParseTypedName(lexer_, "a result"));
      CheckCount(static_cast<std::int64_t>(operation_.results.size()), limits::kMaxOperands, "results");
    } while (lexer_.Accept(","));
    lexer_.Expect("=");
  }

  void ParseInputs() {
    lexer_.Expect("(");
    if (lexer_.Accept(")")) return;
    do {
      const Token name = lexer_.ExpectName("a parameter");
      lexer_.Expect("=");
      const bool isNew = operation_.inputs.try_emplace(std::string(name.text), ParseOperands()).second;
      if (!isNew) FailAt(name.at, "parameter " + Quoted(name.text) + " is given twice");
    } while (lexer_.Accept(","));
    lexer_.Expect(")");
  }

  std::vector<Binding> ParseOperands() {
    std::vector<Binding> operands;
    if (!lexer_.Accept("(")) {
      operands.push_back(ParseOperand());
      return operands;
    }
    if (lexer_.Accept(")")) return operands;
    do {
      operands.push_back(ParseOperand());
      CheckCount(static_cast<std::int64_t>(operands.size()), limits::kMaxOperands, "operands");
    } while (lexer_.Accept(","));
    lexer_.Expect(")");
    return operands;
  }

  /// A name, or a value. A value may begin with any word that a name can be, too: what follows it tells them apart.
  Binding ParseOperand() {
    Lexer ahead = lexer_;
    const Token name = ahead.ExpectName("an operand");
    if (!ahead.Peek().Is("(") && !ahead.Peek().Is("<")) {
      lexer_ = ahead;
      return std::string(name.text);
    }
    std::optional<Tensor> value = ParseValue(lexer_, constants_);
    if (!value) FailAt(name.at, "is a " + std::string(name.text) + ", expected a tensor");
    return std::move(*value);
  }

  void ParseAttributes() {
    lexer_.Expect("[");
    if (lexer_.Accept("]")) return;
    do {
      const Token name = lexer_.ExpectName("an attribute");
      lexer_.Expect("=");
      std::optional<Tensor> value = ParseValue(lexer_, constants_);
      if (name.text == "name") {
        SetName(value);
      } else if (value && !operation_.attributes.try_emplace(std::string(name.text), std::move(*value)).second) {
        FailAt(name.at, "attribute " + Quoted(name.text) + " is given twice");
      }
    } while (lexer_.Accept(","));
    lexer_.Expect("]");
  }

  /// For messages alone, so that one that cannot be used is no error.
  void SetName(const std::optional<Tensor>& value) {
    if (!value || value->storage() != Storage::String || value->count() != 1) return;
    if (IsUsableName(value->strings().front())) operation_.name = value->strings().front();
  }

  void SkipBlocks() {
    operation_.hasBlocks = true;
    while (!lexer_.Peek().Is(";")) lexer_.SkipItem();
  }

  Lexer& lexer_;
  ConstantReader& constants_;
  SourceOperation operation_;
};

}  // namespace

NamedType ParseTypedName(Lexer& lexer, const char* what) {
  TextType type = ParseType(lexer);
  return {std::string(lexer.ExpectName(what).text), std::move(type.type), type.isTensor};
}

SourceOperation ParseStatement(Lexer& lexer, ConstantReader& constants) {
  return StatementParser(lexer, constants).Run();
}

}  // namespace ulmora::engine::package::text
