#include "engine/package/text/ProgramParser.h"

#include "engine/Limits.h"
#include "engine/package/SourceChecks.h"
#include "engine/package/Text.h"
#include "engine/package/text/Lexer.h"
#include "engine/package/text/StatementParser.h"
#include "engine/package/text/TypeParser.h"

#include <algorithm>
#include <charconv>
#include <utility>
#include <vector>

namespace ulmora::engine::package {
namespace {

using text::FailAt;
using text::Lexer;
using text::Token;
using text::TokenKind;

/// The head of a function, and where its parameters begin.
struct Function {
  std::string name;
  Token target;
  Lexer parameters;
};

/// "ios15" is the system that brought operation set CoreML5, and so on up; after 18 the systems count by years.
std::string OpsetOf(const Token& target) {
  constexpr std::string_view kPrefix = "ios";
  int number = 0;
  if (target.text.starts_with(kPrefix)) {
    const char* const end = target.text.data() + target.text.size();
    const auto [stop, error] = std::from_chars(target.text.data() + kPrefix.size(), end, number);
    if (error != std::errc() || stop != end) number = 0;
  }
  if (number >= 15 && number <= 18) return "CoreML" + std::to_string(number - 10);
  if (number >= 26 && number <= 99) return "CoreML" + std::to_string(number - 17);
  throw Error(Stage::Translate, "unknown target " + Quoted(target.text) + ", expected ios15 to ios18 or ios26");
}

void SkipAttributes(Lexer& lexer) {
  if (lexer.Peek().Is("[")) lexer.SkipBrackets();
}

std::vector<std::string> ParseOutputs(Lexer& lexer) {
  lexer.Expect("->");
  lexer.Expect("(");
  std::vector<std::string> names;
  if (!lexer.Accept(")")) {
    do {
      names.emplace_back(lexer.ExpectName("an output").text);
      CheckCount(static_cast<std::int64_t>(names.size()), limits::kMaxOperands, "outputs");
    } while (lexer.Accept(","));
    lexer.Expect(")");
  }
  lexer.Expect(";");
  return names;
}

/// Takes a whole function and keeps what is needed to come back to it.
Function SkipFunction(Lexer& lexer) {
  lexer.ExpectWord("func");
  const Token name = lexer.ExpectName("a function");
  lexer.Expect("<");
  const Token target = lexer.ExpectName("a target");
  lexer.Expect(">");
  Function function{std::string(name.text), target, lexer};
  if (!lexer.Peek().Is("(")) lexer.FailExpected("'('");
  lexer.SkipBrackets();
  SkipAttributes(lexer);
  if (!lexer.Peek().Is("{")) lexer.FailExpected("'{'");
  lexer.SkipBrackets();
  static_cast<void>(ParseOutputs(lexer));
  return function;
}

std::vector<Function> ParseFile(std::string_view text) {
  Lexer lexer(text);
  lexer.ExpectWord("program");
  if (!lexer.Peek().Is("(")) lexer.FailExpected("'('");
  lexer.SkipBrackets();
  SkipAttributes(lexer);
  lexer.Expect("{");
  std::vector<Function> functions;
  while (!lexer.Accept("}")) {
    functions.push_back(SkipFunction(lexer));
    CheckCount(static_cast<std::int64_t>(functions.size()), limits::kMaxFunctions, "functions");
  }
  if (lexer.Peek().kind != TokenKind::End) lexer.FailExpected("the end of the text");
  return functions;
}

const Function& FindFunction(const std::vector<Function>& functions, const std::string& name) {
  if (name.empty() && functions.size() == 1) return functions.front();
  const std::string wanted = name.empty() ? "main" : name;
  const auto found = std::ranges::find(functions, wanted, &Function::name);
  if (found != functions.end()) return *found;
  constexpr std::size_t kShown = 8;
  std::string names;
  for (const Function& function : functions) {
    if (&function - functions.data() < static_cast<std::ptrdiff_t>(kShown)) names += ", " + Quoted(function.name);
  }
  if (functions.size() > kShown) names += ", ...";
  throw Error(Stage::Translate, "the program has no function " + Quoted(wanted) + ", found " +
                                    (names.empty() ? "none" : names.substr(2)));
}

std::vector<NamedType> ParseParameters(Lexer& lexer) {
  std::vector<NamedType> inputs;
  lexer.Expect("(");
  if (lexer.Accept(")")) return inputs;
  do {
    inputs.push_back(text::ParseTypedName(lexer, "an input"));
    CheckCount(static_cast<std::int64_t>(inputs.size()), limits::kMaxOperands, "inputs");
  } while (lexer.Accept(","));
  lexer.Expect(")");
  return inputs;
}

TextProgram ParseFunction(const Function& function, ConstantReader& constants) {
  TextProgram result;
  SourceProgram& program = result.function;
  program.opset = OpsetOf(function.target);
  Lexer lexer = function.parameters;
  program.inputs = ParseParameters(lexer);
  if (lexer.Peek().Is("[")) result.flexibleShapes = text::ParseFlexibleShapes(lexer);
  lexer.Expect("{");
  auto values = static_cast<std::int64_t>(program.inputs.size());
  while (!lexer.Accept("}")) {
    program.operations.push_back(text::ParseStatement(lexer, constants));
    CheckCount(static_cast<std::int64_t>(program.operations.size()), limits::kMaxOperations, "operations");
    values += static_cast<std::int64_t>(program.operations.back().results.size());
    CheckCount(values, limits::kMaxValues, "values");
  }
  program.outputs = ParseOutputs(lexer);
  return result;
}

}  // namespace

TextProgram ReadTextProgram(std::string_view text, const std::string& functionName, ConstantReader& constants) {
  const std::vector<Function> functions = ParseFile(text);
  const Function& function = FindFunction(functions, functionName);
  return Within([&] { return "function " + Quoted(function.name); },
                [&] { return ParseFunction(function, constants); });
}

}  // namespace ulmora::engine::package
