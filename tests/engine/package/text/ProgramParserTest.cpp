#include "engine/Limits.h"
#include "engine/package/text/ProgramParser.h"
#include "tests/engine/package/text/TextTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::package::text {
namespace {

using package::testing::ExpectError;
using ::testing::ElementsAre;

TextProgram Parse(const std::string& text, const std::string& function = "") {
  testing::NoConstants constants;
  return ReadTextProgram(text, function, constants.reader());
}

std::string Function(const std::string& statements, const std::string& name = "main",
                     const std::string& target = "ios16", const std::string& attributes = "") {
  return "func " + name + "<" + target + ">(tensor<fp32, [1, 3, ?, 8]> x)" + attributes + " {\n" + statements +
         "} -> (y);\n";
}

std::string Program(const std::string& functions) {
  return "program(1.3)\n[buildInfo = dict<string, string>({{\"component\", \"0.0\"}})]\n{\n" + functions + "}\n";
}

/// The one operation of a program with this statement.
SourceOperation ParseStatement(const std::string& statement) {
  return Parse(Program(Function(statement))).function.operations.at(0);
}

void ExpectRefused(const std::string& text, const std::string& message, Stage stage = Stage::Open) {
  ExpectError(stage, {message}, [&] { static_cast<void>(Parse(text)); });
}

/// Statements stand in line 5 of the program.
void ExpectStatementRefused(const std::string& statement, const std::string& message, Stage stage = Stage::Open) {
  ExpectRefused(Program(Function(statement)), message, stage);
}

TEST(ProgramParser, AWholeFunction) {
  const TextProgram program = Parse(R"(program(1.0)
[buildInfo = dict<tensor<string, []>, tensor<string, []>>({{"a", "1"}, {"b", "2"}})]
{
    func main<ios15>(tensor<fp32, [1, 3, 8, 8]> x, int32 k) {
            tensor<int32, [2]> st = const()[name = tensor<string, []>("st"), val = tensor<int32, [2]>([1, 1])];
            tensor<fp16, [1, 3, 8, 8]> h = cast(dtype = string("fp16"), x = x)[name = string("c0")];
            tensor<fp16, [1, 6, 8, 8]> y = concat(axis = int32(1), values = (h, h), interleave = bool(false))[name = string("y1")];
        } -> (y, h);
})");
  EXPECT_EQ(program.function.opset, "CoreML5");
  ASSERT_EQ(program.function.inputs.size(), 2U);
  EXPECT_EQ(program.function.inputs[0].name, "x");
  EXPECT_EQ(program.function.inputs[0].type, (TensorType{ElementType::Float32, {1, 3, 8, 8}, true}));
  EXPECT_EQ(program.function.inputs[1].type, (TensorType{ElementType::Int32, {}, true}));
  ASSERT_EQ(program.function.operations.size(), 3U);
  const SourceOperation& constant = program.function.operations[0];
  EXPECT_EQ(constant.type, "const");
  EXPECT_EQ(constant.name, "st");
  EXPECT_THAT(constant.attributes.at("val").ints(), ElementsAre(1, 1));
  EXPECT_EQ(constant.attributes.count("name"), 0U);
  EXPECT_EQ(constant.results.at(0).type, (TensorType{ElementType::Int32, {2}, true}));
  const SourceOperation& cast = program.function.operations[1];
  EXPECT_EQ(std::get<Tensor>(cast.inputs.at("dtype").at(0)).strings()[0], "fp16");
  EXPECT_EQ(std::get<std::string>(cast.inputs.at("x").at(0)), "x");
  const SourceOperation& concat = program.function.operations[2];
  ASSERT_EQ(concat.inputs.at("values").size(), 2U);
  EXPECT_EQ(std::get<std::string>(concat.inputs.at("values")[1]), "h");
  EXPECT_EQ(concat.name, "y1");
  EXPECT_THAT(program.function.outputs, ElementsAre("y", "h"));
}

TEST(ProgramParser, FormsOfStatements) {
  EXPECT_EQ(ParseStatement("fp32 a, tensor<fp32, [2]> b = split(x = x);").results.size(), 2U);
  EXPECT_TRUE(ParseStatement("write_state(data = x, input = s)[name = string(\"w\")];").results.empty());
  EXPECT_TRUE(ParseStatement("fp32 y = f();").inputs.empty());
  EXPECT_EQ(ParseStatement("fp32 y = f<ios18>(x = x);").type, "f");
  EXPECT_EQ(ParseStatement("fp32 y = f(x = x)[];").name, "y");
  EXPECT_EQ(ParseStatement("fp32 y = f(values = (x));").inputs.at("values").size(), 1U);
  EXPECT_TRUE(ParseStatement("fp32 y = f(values = ());").inputs.at("values").empty());
  EXPECT_FALSE(ParseStatement("list<fp32, 2> y = f(x = x);").results.at(0).isTensor);
  // Words for types may be names, too.
  EXPECT_EQ(std::get<std::string>(ParseStatement("fp32 y = f(x = string);").inputs.at("x").at(0)), "string");
}

TEST(ProgramParser, AttributesThatAreNoTensorsAreLeftOut) {
  const SourceOperation operation =
      ParseStatement("fp32 y = f()[note = dict<string, string>({{\"a\", \"b\"}}), axis = int32(1)];");
  EXPECT_EQ(operation.attributes.size(), 1U);
  EXPECT_EQ(operation.attributes.at("axis").ints()[0], 1);
}

TEST(ProgramParser, NamesOfOperationsAreUsedOnlyWhereTheyCan) {
  EXPECT_EQ(ParseStatement("fp32 y = f()[name = string(\"given\")];").name, "given");
  EXPECT_EQ(ParseStatement("fp32 y = f()[name = string(\"\")];").name, "y");
  EXPECT_EQ(ParseStatement("fp32 y = f()[name = string(\"two\\nlines\")];").name, "y");
  EXPECT_EQ(ParseStatement("fp32 y = f()[name = int32(1)];").name, "y");
}

TEST(ProgramParser, BlocksAreNoticedAndSkipped) {
  EXPECT_TRUE(ParseStatement("fp32 y = cond(pred = x) { fp32 a = f(x = x); } -> (a), { } -> (x);").hasBlocks);
  EXPECT_TRUE(ParseStatement("fp32 y = cond(pred = x)[name = string(\"c\")] { (fp32 q) };").hasBlocks);
  EXPECT_FALSE(ParseStatement("fp32 y = f(x = x);").hasBlocks);
}

TEST(ProgramParser, TargetsNameOperationSets) {
  const auto opset = [](const std::string& target) {
    return Parse(Program(Function("", "main", target))).function.opset;
  };
  EXPECT_EQ(opset("ios15"), "CoreML5");
  EXPECT_EQ(opset("ios16"), "CoreML6");
  EXPECT_EQ(opset("ios17"), "CoreML7");
  EXPECT_EQ(opset("ios18"), "CoreML8");
  EXPECT_EQ(opset("ios26"), "CoreML9");
  for (const char* target : {"ios14", "ios19", "ios25", "ios", "ios1x", "mac15", "ios999999999999"}) {
    ExpectRefused(Program(Function("", "main", target)),
                  "function 'main': unknown target '" + std::string(target) + "'", Stage::Translate);
  }
}

TEST(ProgramParser, FunctionsAreChosenByName) {
  const std::string two =
      Program(Function("fp32 a = f();", "first", "ios18") + Function("fp32 b = g();", "main", "ios18"));
  EXPECT_EQ(Parse(two).function.operations.at(0).type, "g");
  EXPECT_EQ(Parse(two, "first").function.operations.at(0).type, "f");
  // With but one there is no doubt.
  const std::string one = Program(Function("fp32 a = f();", "first"));
  EXPECT_EQ(Parse(one).function.operations.at(0).type, "f");
  ExpectError(Stage::Translate, {"the program has no function 'main', found 'first'"},
              [&] { static_cast<void>(Parse(one, "main")); });
  ExpectRefused(Program(""), "the program has no function 'main', found none", Stage::Translate);
  std::string many;
  for (int i = 0; i < 10; ++i) many += Function("", "f" + std::to_string(i));
  ExpectRefused(Program(many), "found 'f0', 'f1', 'f2', 'f3', 'f4', 'f5', 'f6', 'f7', ...", Stage::Translate);
}

FlexibleShapes ShapesOf(const std::string& attributes) {
  return Parse(Program(Function("", "main", "ios16", attributes))).flexibleShapes;
}

TEST(ProgramParser, RangesOfFlexibleInputs) {
  const FlexibleShapes shapes = ShapesOf(
      " [note = string(\"a\"), FlexibleShapeInformation = tuple<tuple<string, dict<string, tensor<int32, [?]>>>, "
      "tuple<string, dict<string, dict<string, tensor<int32, [?]>>>>>((("
      "\"DefaultShapes\", {{\"x\", [1, 3, 64, 8]}, {\"k\", []}}), (\"RangeDims\", {{\"x\", [[1, 1], [3, 3], [8, 64], "
      "[0, -1]]}, {\"k\", []}})))]");
  EXPECT_EQ(shapes.defaults.at("x"), (Shape{1, 3, 64, 8}));
  EXPECT_TRUE(shapes.defaults.at("k").empty());
  EXPECT_EQ(shapes.ranges.at("x"), (std::vector<SizeRange>{{1, 1}, {3, 3}, {8, 64}, {0, SizeRange::kUnbounded}}));
  EXPECT_TRUE(shapes.ranges.at("k").empty());
  EXPECT_TRUE(shapes.enumerated.empty());
}

TEST(ProgramParser, ShapesThatFlexibleInputsMayHave) {
  const FlexibleShapes shapes = ShapesOf(
      "[FlexibleShapeInformation = tuple<x>(((\"DefaultShapes\", {{\"x\", [1, 9]}}), (\"Other\", {{1}}), "
      "(\"EnumeratedShapes\", {{\"ab12\", {{\"x\", [1, 9]}, {\"k\", [2]}}}, {\"cd\", {{\"x\", [1, 7]}, {\"k\", "
      "[2]}}}})))]");
  EXPECT_EQ(shapes.defaults.at("x"), (Shape{1, 9}));
  EXPECT_EQ(shapes.enumerated.at("x"), (std::vector<Shape>{{1, 9}, {1, 7}}));
  EXPECT_EQ(shapes.enumerated.at("k"), (std::vector<Shape>{{2}}));
  EXPECT_TRUE(shapes.ranges.empty());
}

TEST(ProgramParser, NothingIsFlexibleWhereNothingSaysIt) {
  for (const char* attributes : {"", "[]", "[note = string(\"a\")]"}) {
    const FlexibleShapes shapes = ShapesOf(attributes);
    EXPECT_TRUE(shapes.defaults.empty() && shapes.ranges.empty() && shapes.enumerated.empty()) << attributes;
  }
}

TEST(ProgramParser, MalformedFlexibleShapes) {
  const auto refuse = [](const std::string& literal, const std::string& message) {
    ExpectRefused(Program(Function("", "main", "ios16", "[FlexibleShapeInformation = tuple<x>" + literal + "]")),
                  message);
  };
  refuse("", "expected '(', found ']'");
  refuse("(((\"DefaultShapes\", 1)))", "expected '{', found '1'");
  refuse("(((\"DefaultShapes\", {{x, [1]}})))", "expected a string, found 'x'");
  refuse("(((\"DefaultShapes\", {{\"x\", [0]}})))", "a dimension has size '0'");
  refuse("(((\"DefaultShapes\", {{\"x\", [1.5]}})))", "a dimension has size '1.5'");
  refuse("(((\"DefaultShapes\", {{\"x\", [y]}})))", "expected a dimension, found 'y'");
  refuse("(((\"DefaultShapes\", {{\"x\", [1,1,1,1,1,1,1,1,1]}})))", "a shape has more than 8 dimensions");
  refuse("(((\"DefaultShapes\" {})))", "expected ',', found '{'");
  const auto refuseRange = [&](const std::string& range, const std::string& message) {
    refuse("(((\"RangeDims\", {{\"x\", " + range + "}})))", message);
  };
  refuseRange("[1]", "expected '[', found '1'");
  refuseRange("[[1]]", "expected ',', found ']'");
  refuseRange("[[1, 2, 3]]", "expected ']', found ','");
  refuseRange("[[a, 2]]", "expected a dimension, found 'a'");
  refuseRange("[[-1, 2]]", "a dimension has size '-1' to '2', expected whole numbers");
  refuseRange("[[1, 2.5]]", "a dimension has size '1' to '2.5', expected whole numbers");
  refuseRange("[[1, 99999999999999999999]]", "expected whole numbers");
  refuseRange("[[3, 2]]", "has a dimension of size 3 to 2");
  refuseRange("[[4294967296, -1]]", "has a dimension of size 4294967296 to -1");
  refuseRange("[[1,1],[1,1],[1,1],[1,1],[1,1],[1,1],[1,1],[1,1],[1,1]]", "there are more than 8 ranges");
  refuse("(((\"EnumeratedShapes\", {{\"a\", [1]}})))", "expected '{', found '['");
  refuse("(((\"EnumeratedShapes\", {{\"a\", {{\"x\", [0]}}}})))", "a dimension has size '0'");
  refuse("(x)", "expected ',', found 'x'");
  refuse("(" + std::string(100, '(') + ")", "brackets are nested more than 64 deep");
}

TEST(ProgramParser, MalformedFiles) {
  ExpectRefused("", "line 1, column 1: expected 'program', found the end of the text");
  ExpectRefused("programme(1.0) {}", "expected 'program', found 'programme'");
  ExpectRefused("program {}", "expected '(', found '{'");
  ExpectRefused("program(1.0", "the text ends within brackets");
  ExpectRefused("program(1.0)", "expected '{', found the end of the text");
  ExpectRefused("program(1.0) {", "expected 'func', found the end of the text");
  ExpectRefused("program(1.0) {} x", "expected the end of the text, found 'x'");
  ExpectRefused("program(1.0) [ {", "the text ends within brackets");
  ExpectRefused(std::string("\x08\x06\xB2\x1F", 4), "unexpected character");
}

TEST(ProgramParser, MalformedFunctions) {
  const auto refuse = [](const std::string& function, const std::string& message) {
    ExpectRefused("program(1.0) {" + function + "}", message);
  };
  refuse("func", "expected a function, found '}'");
  refuse("func main", "expected '<', found '}'");
  refuse("func main<>", "expected a target, found '>'");
  refuse("func main<ios16", "expected '>'");
  refuse("func main<ios16> {}", "expected '(', found '{'");
  refuse("func main<ios16>() -> (y);", "expected '{', found '->'");
  refuse("func main<ios16>() { } (y);", "expected '->', found '('");
  refuse("func main<ios16>() { } -> y;", "expected '(', found 'y'");
  refuse("func main<ios16>() { } -> (y", "expected ')', found '}'");
  refuse("func main<ios16>() { } -> (y,);", "expected an output, found ')'");
  refuse("func main<ios16>() { } -> (y)", "expected ';', found '}'");
  refuse("func main<ios16>(x) { } -> (y);", "function 'main': line 1, column 32: unknown element type 'x'");
  refuse("func main<ios16>(fp32) { } -> (y);", "expected an input, found ')'");
  refuse("func main<ios16>(fp32 x,) { } -> (y);", "expected a type, found ')'");
  refuse("func main<ios16>(fp32 x fp32 y) { } -> (y);", "expected ')', found 'fp32'");
}

TEST(ProgramParser, MalformedStatements) {
  ExpectStatementRefused(";", "function 'main': line 5, column 1: expected a statement, found ';'");
  ExpectStatementRefused("fp32 = f();", "expected a result, found '='");
  ExpectStatementRefused("fp32 y f();", "expected '=', found 'f'");
  ExpectStatementRefused("fp32 y = ;", "expected an operation, found ';'");
  ExpectStatementRefused("fp32 y = 3;", "expected an operation, found '3'");
  ExpectStatementRefused("fp32 y = f;", "expected '(', found ';'");
  ExpectStatementRefused("fp32 y, = f();", "expected a type, found '='");
  ExpectStatementRefused("fp32 y = f()", "expected ';', found '}'");
  ExpectStatementRefused("fp32 y = f(x);", "expected '=', found ')'");
  ExpectStatementRefused("fp32 y = f(x = );", "expected an operand, found ')'");
  ExpectStatementRefused("fp32 y = f(x = 3);", "expected an operand, found '3'");
  ExpectStatementRefused("fp32 y = f(x = x, x = x);", "line 5, column 19: parameter 'x' is given twice");
  ExpectStatementRefused("fp32 y = f(x = (x,));", "expected an operand, found ')'");
  ExpectStatementRefused("fp32 y = f(x = (x y));", "expected ')', found 'y'");
  ExpectStatementRefused("fp32 y = f(x = list<fp32, 1>((1)));", "is a list, expected a tensor");
  ExpectStatementRefused("fp32 y = f(x = g(1));", "unknown element type 'g'");
  ExpectStatementRefused("fp32 y = f()[name];", "expected '=', found ']'");
  ExpectStatementRefused("fp32 y = f()[axis = 1];", "expected a type, found '1'");
  ExpectStatementRefused("fp32 y = f()[a = int32(1), a = int32(1)];", "attribute 'a' is given twice");
  ExpectStatementRefused("fp32 y = f()[a = int32(1) b = int32(1)];", "expected ']', found 'b'");
  ExpectStatementRefused("fp32 y = f() { fp32 a = g(); }", "expected a word or an opening bracket, found '}'");
}

TEST(ProgramParser, CountsAreBounded) {
  std::string operands = "fp32 y = f(values = (x";
  for (int i = 0; i < limits::kMaxOperands; ++i) operands += ",x";
  ExpectStatementRefused(operands + "));", "has 65537 operands, expected at most 65536", Stage::Translate);
  std::string results = "fp32 a";
  for (int i = 0; i < limits::kMaxOperands; ++i) results += ",fp32 a";
  ExpectStatementRefused(results + " = f();", "has 65537 results, expected at most 65536", Stage::Translate);
  std::string operations;
  for (int i = 0; i <= limits::kMaxOperations; ++i) operations += "f();";
  ExpectStatementRefused(operations, "has 200001 operations, expected at most 200000", Stage::Translate);
  std::string functions;
  for (int i = 0; i <= limits::kMaxFunctions; ++i) functions += "func f<ios16>(){}->();";
  ExpectRefused(Program(functions), "has 4097 functions, expected at most 4096", Stage::Translate);
}

TEST(ProgramParser, EveryCutTextIsRefused) {
  const std::string text = Program(Function("tensor<fp32, [1]> y = f(x = (x, fp32(0x1p+0)))[name = string(\"a\")];\n"));
  ASSERT_NO_THROW(static_cast<void>(Parse(text)));
  // The last brace, behind which there is nothing but a line break.
  for (std::size_t length = 0; length + 1 < text.size(); ++length) {
    SCOPED_TRACE(length);
    ExpectRefused(text.substr(0, length), "line ");
  }
}

}  // namespace
}  // namespace ulmora::engine::package::text
