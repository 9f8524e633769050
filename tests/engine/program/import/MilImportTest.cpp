#include "engine/Error.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/Verify.h"
#include "engine/program/import/MilImport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace ulmora::engine::program {
namespace {

using package::Binding;
using package::ModelSource;
using package::NamedType;
using package::SourceOperation;
using ::testing::HasSubstr;

constexpr std::int64_t kOpen = kUnknownDim;

NamedType Floats(const std::string& name, Shape shape) {
  return {name, {ElementType::Float32, std::move(shape), true}, true};
}

SourceOperation Const(const std::string& name, Tensor value) {
  return {"const", name, {}, {{"val", value}}, {{name, value.type(), true}}, false};
}

SourceOperation Operation(const std::string& type, const std::string& name,
                          std::map<std::string, std::vector<Binding>> inputs) {
  return {type, name, std::move(inputs), {}, {Floats(name, {1, 2, kOpen, kOpen})}, false};
}

/// y = x + c, c = [[[10]], [[20]]], for x of [1, 2, ?, ?].
ModelSource Sum() {
  ModelSource source;
  source.program.opset = "CoreML5";
  source.program.inputs = {Floats("x", {1, 2, kOpen, kOpen})};
  source.program.operations = {Const("c", Tensor::Floats({2, 1, 1}, {10, 20})),
                               Operation("add", "y", {{"x", {"x"}}, {"y", {"c"}}})};
  source.program.outputs = {"y"};
  return source;
}

void ExpectRefused(const ModelSource& source, const std::string& text) {
  try {
    static_cast<void>(ImportMil(source));
  } catch (const Error& error) {
    EXPECT_EQ(error.stage(), Stage::Translate);
    EXPECT_THAT(error.what(), HasSubstr(text));
    return;
  }
  ADD_FAILURE() << "nothing was thrown, expected: " << text;
}

TEST(MilImport, BuildsAWellFormedProgram) {
  const Program program = ImportMil(Sum());
  Verify(program);
  EXPECT_EQ(program.opset, 5);
  ASSERT_EQ(program.operations.size(), 1U);
  const program::Operation& add = program.operations[0];
  EXPECT_EQ(add.definition, FindOp("add"));
  EXPECT_EQ(add.name, "y");
  ASSERT_EQ(program.inputs.size(), 1U);
  EXPECT_EQ(program.at(program.inputs[0]).name, "x");
  EXPECT_EQ(program.at(program.inputs[0]).type.shape, (Shape{1, 2, kOpen, kOpen}));
  EXPECT_EQ(program.outputs, add.results);
  const Value& constant = program.at(add.arguments.at(static_cast<std::size_t>(add.definition->IndexOf("y"))).at(0));
  EXPECT_EQ(constant.name, "c");
  EXPECT_EQ(constant.constant->floats()[1], 20.0F);
}

TEST(MilImport, InlineValuesBecomeConstants) {
  ModelSource source = Sum();
  source.program.operations = {Operation("add", "y", {{"x", {"x"}}, {"y", {Tensor::Float(1)}}})};
  const Program program = ImportMil(source);
  Verify(program);
  EXPECT_EQ(program.values.size(), 3U);
  EXPECT_EQ(program.at(1).name, "y.y");
}

TEST(MilImport, AttributesThatAreParametersAreOperands) {
  ModelSource source = Sum();
  SourceOperation relu = Operation("leaky_relu", "y", {{"x", {"x"}}});
  relu.attributes = {{"alpha", Tensor::Float(0.1F)}, {"remark", Tensor::Text("made by hand")}};
  source.program.operations = {relu};
  const Program program = ImportMil(source);
  Verify(program);
  const auto alpha = static_cast<std::size_t>(FindOp("leaky_relu")->IndexOf("alpha"));
  EXPECT_EQ(program.operations[0].arguments.at(alpha).size(), 1U);
  relu.inputs["alpha"] = {Tensor::Float(0.2F)};
  source.program.operations = {relu};
  ExpectRefused(source, "leaky_relu 'y': has parameter 'alpha' twice, as input and as attribute");
}

TEST(MilImport, VariadicParametersTakeSeveralOperands) {
  ModelSource source = Sum();
  source.program.operations = {Operation(
      "concat", "y", {{"values", {"x", "x"}}, {"axis", {Tensor::Int(1)}}, {"interleave", {Tensor::Bool(false)}}})};
  source.program.operations[0].results = {Floats("y", {1, 4, kOpen, kOpen})};
  const Program program = ImportMil(source);
  EXPECT_EQ(program.operations[0].arguments.at(static_cast<std::size_t>(FindOp("concat")->IndexOf("values"))).size(),
            2U);
}

TEST(MilImport, OutputsMayBeInputsConstantsOrRepeated) {
  ModelSource source = Sum();
  source.program.outputs = {"x", "c", "y", "y"};
  const Program program = ImportMil(source);
  EXPECT_EQ(program.outputs[0], program.inputs[0]);
  EXPECT_EQ(program.outputs[2], program.outputs[3]);
}

TEST(MilImport, OperationSets) {
  ModelSource source = Sum();
  for (const int number : {5, 6, 7, 8, 9, 12}) {
    source.program.opset = "CoreML" + std::to_string(number);
    EXPECT_EQ(ImportMil(source).opset, number);
  }
  for (const char* opset : {"", "CoreML", "CoreML4", "CoreML5x", "coreml5", "CoreML-6", "CoreML99999999999"}) {
    source.program.opset = opset;
    ExpectRefused(source, std::string("unknown operation set '") + opset + "', expected CoreML5 or later");
  }
}

TEST(MilImport, UnknownOperationsAndControlFlow) {
  ModelSource source = Sum();
  source.program.operations[1].type = "frobnicate";
  ExpectRefused(source, "frobnicate 'y': unknown operation");
  source.program.operations[1].type = "cond";
  source.program.operations[1].hasBlocks = true;
  ExpectRefused(source, "cond 'y': contains nested blocks; control flow is not supported");
}

TEST(MilImport, OperationsThatWeDoNotRunSayWhy) {
  ModelSource source = Sum();
  source.program.operations.back().type = "random_normal";
  ExpectRefused(source, "random_normal 'y': results that differ from run to run are not supported");
  source.program.operations.back().type = "lstm";
  ExpectRefused(source, "lstm 'y': recurrent layers are not supported");
  source.program.operations.back().type = "read_state";
  ExpectRefused(source, "read_state 'y': networks that keep a state from run to run are not supported");
}

TEST(MilImport, ParametersAreChecked) {
  ModelSource source = Sum();
  source.program.operations[1].inputs["gain"] = {"c"};
  ExpectRefused(source, "add 'y': has no parameter 'gain'");
  source = Sum();
  source.program.operations[1].inputs.erase("y");
  ExpectRefused(source, "add 'y': lacks parameter 'y'");
  source = Sum();
  source.program.operations[1].inputs["y"] = {"c", "c"};
  ExpectRefused(source, "add 'y': has 2 operands for parameter 'y', expected 1");
  source = Sum();
  source.program.operations[1].inputs["y"] = {};
  ExpectRefused(source, "add 'y': lacks parameter 'y'");
}

TEST(MilImport, NamesAreDefinedBeforeUseAndOnce) {
  ModelSource source = Sum();
  source.program.operations[1].inputs["y"] = {"z"};
  ExpectRefused(source, "add 'y': parameter 'y' names 'z', which is not defined before it");
  source = Sum();
  std::swap(source.program.operations[0], source.program.operations[1]);
  ExpectRefused(source, "add 'y': parameter 'y' names 'c', which is not defined before it");
  source = Sum();
  source.program.operations[1].inputs["y"] = {"y"};  // a cycle
  ExpectRefused(source, "parameter 'y' names 'y', which is not defined before it");
  source = Sum();
  source.program.operations.push_back(source.program.operations[1]);
  ExpectRefused(source, "add 'y': result 'y' is already defined");
  source = Sum();
  source.program.operations[0].results[0].name = "x";
  ExpectRefused(source, "const 'c': result 'x' is already defined");
  source = Sum();
  source.program.inputs.push_back(source.program.inputs[0]);
  ExpectRefused(source, "the program's input 'x' is defined twice");
  source = Sum();
  source.program.outputs.emplace_back("z");
  ExpectRefused(source, "the program's output 'z' is not defined");
}

TEST(MilImport, ConstantsAreChecked) {
  ModelSource source = Sum();
  source.program.operations[0].attributes.clear();
  ExpectRefused(source, "const 'c': has no value");
  source = Sum();
  source.program.operations[0].results.clear();
  ExpectRefused(source, "const 'c': has 0 results, expected 1");
  source = Sum();
  source.program.operations[0].results[0].type.shape = {3, 1, 1};
  ExpectRefused(source, "const 'c': is declared as float32 [3, 1, 1], but its value is float32 [2, 1, 1]");
  source = Sum();
  source.program.operations[0].results[0].type.element = ElementType::Int32;
  ExpectRefused(source, "const 'c': is declared as int32 [2, 1, 1], but its value is float32 [2, 1, 1]");
}

TEST(MilImport, OnlyTensorsFlow) {
  ModelSource source = Sum();
  source.program.operations[1].results[0].isTensor = false;
  ExpectRefused(source, "add 'y': result 'y' is not a tensor");
  source = Sum();
  source.program.inputs[0].isTensor = false;
  ExpectRefused(source, "the program's input 'x' is not a tensor");
}

TEST(MilImport, ImpossibleNetworksAreRefusedWhenTheShapeIsKnown) {
  ModelSource source = Sum();
  source.program.operations[0] = Const("c", Tensor::Floats({5, 1, 1}, {1, 2, 3, 4, 5}));
  EXPECT_NO_THROW(static_cast<void>(ImportMil(source)));  // nothing is known of the shape
  source.inputs = {{"x", FeatureKind::Tensor, ElementType::Float32, {1, 2, 8, 8}}};
  ExpectRefused(source, "add 'y'");
  source.inputs.clear();
  source.program.inputs[0].type.shape = {1, 2, 8, 8};
  ExpectRefused(source, "add 'y'");
}

TEST(MilImport, DefaultShapeMustFitTheProgram) {
  ModelSource source = Sum();
  source.inputs = {{"x", FeatureKind::Tensor, ElementType::Float32, {1, 3, 8, 8}}};
  ExpectRefused(source, "input 'x' has shape [1, 3, 8, 8], expected [1, 2, ?, ?]");
}

TEST(MilImport, SpecializingForTheChecksLeavesTheProgramOpen) {
  ModelSource source = Sum();
  source.inputs = {{"x", FeatureKind::Tensor, ElementType::Float32, {1, 2, 8, 8}}};
  const Program program = ImportMil(source);
  EXPECT_EQ(program.at(program.inputs[0]).type.shape, (Shape{1, 2, kOpen, kOpen}));
}

}  // namespace
}  // namespace ulmora::engine::program
