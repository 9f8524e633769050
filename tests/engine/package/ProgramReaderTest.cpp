#include "engine/package/ProgramReader.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using testing::AddConst;
using testing::BlockOf;
using testing::ExpectError;
using testing::IdentityModel;
using testing::SetTensorType;

class ProgramReaderTest : public ::testing::Test {
 protected:
  SourceProgram Read(const std::string& function = "main") {
    const Bundle bundle{"/nowhere/model.mlmodel"};
    ConstantReader constants(bundle);
    return ReadProgram(model_.mlprogram(), function, constants);
  }

  void ExpectRefused(Stage stage, const std::vector<std::string>& parts) {
    ExpectError(stage, parts, [&] { static_cast<void>(Read()); });
  }

  coreml::Operation& Operation() { return *BlockOf(model_).mutable_operations(0); }

  coreml::Model model_ = IdentityModel();
};

TEST_F(ProgramReaderTest, ReadsTypesOperandsAndResults) {
  const SourceProgram program = Read();
  EXPECT_EQ(program.opset, "CoreML5");
  ASSERT_EQ(program.inputs.size(), 1U);
  EXPECT_EQ(program.inputs[0].name, "x");
  EXPECT_EQ(program.inputs[0].type, (TensorType{ElementType::Float32, {1, 3, kUnknownDim, kUnknownDim}, true}));
  ASSERT_EQ(program.operations.size(), 1U);
  const SourceOperation& operation = program.operations[0];
  EXPECT_EQ(operation.type, "identity");
  EXPECT_EQ(std::get<std::string>(operation.inputs.at("x").at(0)), "x");
  EXPECT_EQ(operation.results.at(0).name, "y");
  EXPECT_FALSE(operation.hasBlocks);
  EXPECT_EQ(program.outputs, std::vector<std::string>{"y"});
}

TEST_F(ProgramReaderTest, ConstantsAndInlineValuesAreDecoded) {
  AddConst(model_, "c", coreml::INT32, {2}).mutable_immediatevalue()->mutable_tensor()->mutable_ints()->add_values(4);
  coreml::Value& value = (*Operation().mutable_attributes())["val"];
  value.mutable_immediatevalue()->mutable_tensor()->mutable_ints()->add_values(5);
  coreml::Value& inlined =
      *(*BlockOf(model_).mutable_operations(1)->mutable_inputs())["k"].add_arguments()->mutable_value();
  SetTensorType(*inlined.mutable_type(), coreml::BOOL, {});
  inlined.mutable_immediatevalue()->mutable_tensor()->mutable_bools()->add_values(true);
  const SourceProgram program = Read();
  EXPECT_THAT(program.operations[0].attributes.at("val").ints(), ::testing::ElementsAre(4, 5));
  EXPECT_EQ(std::get<Tensor>(program.operations[1].inputs.at("k").at(0)).bools()[0], 1);
}

TEST_F(ProgramReaderTest, NameAttributeIsUsedOnlyWhereItCan) {
  EXPECT_EQ(Read().operations[0].name, "y");
  coreml::Value& name = (*Operation().mutable_attributes())["name"];
  SetTensorType(*name.mutable_type(), coreml::STRING, {});
  name.mutable_immediatevalue()->mutable_tensor()->mutable_strings()->add_values("given");
  EXPECT_EQ(Read().operations[0].name, "given");
  EXPECT_EQ(Read().operations[0].attributes.count("name"), 0U);
  name.mutable_immediatevalue()->mutable_tensor()->mutable_strings()->set_values(0, "two\nlines");
  EXPECT_EQ(Read().operations[0].name, "y");
  name.mutable_immediatevalue()->mutable_tensor()->mutable_floats();
  EXPECT_EQ(Read().operations[0].name, "y");
}

TEST_F(ProgramReaderTest, OtherKindsOfAttributesAreLeftOut) {
  (*Operation().mutable_attributes())["remark"].mutable_type()->mutable_dictionarytype();
  EXPECT_TRUE(Read().operations[0].attributes.empty());
}

TEST_F(ProgramReaderTest, OtherKindsOfResultsAreMarked) {
  Operation().mutable_outputs(0)->mutable_type()->mutable_listtype();
  EXPECT_FALSE(Read().operations[0].results[0].isTensor);
}

TEST_F(ProgramReaderTest, OpenRankIsKept) {
  coreml::TensorType& type = *Operation().mutable_outputs(0)->mutable_type()->mutable_tensortype();
  type.set_rank(-1);
  type.clear_dimensions();
  EXPECT_FALSE(Read().operations[0].results[0].type.rankKnown);
}

TEST_F(ProgramReaderTest, FunctionsAndBlocksAreChosenByName) {
  ExpectError(Stage::Translate, {"the program has no function 'other', found 'main'"},
              [&] { static_cast<void>(Read("other")); });
  (*model_.mutable_mlprogram()->mutable_functions())["main"].set_opset("CoreML6");
  ExpectRefused(Stage::Translate, {"function 'main'", "no block for its operation set 'CoreML6', found 'CoreML5'"});
  model_.mutable_mlprogram()->clear_functions();
  ExpectRefused(Stage::Translate, {"the program has no function 'main', found none"});
}

TEST_F(ProgramReaderTest, MessagesNameTheOperation) {
  Operation().mutable_outputs(0)->mutable_type()->mutable_tensortype()->set_rank(9);
  ExpectRefused(Stage::Open, {"function 'main': 'identity' operation 'y': value 'y': a tensor type of rank 9 has 4"});
}

TEST_F(ProgramReaderTest, MissingNamesAndOperandsAreRefused) {
  Operation().clear_type();
  ExpectRefused(Stage::Open, {"an operation's type has no name"});
  model_ = IdentityModel();
  Operation().mutable_outputs(0)->clear_name();
  ExpectRefused(Stage::Open, {"a result has no name"});
  model_ = IdentityModel();
  (*Operation().mutable_inputs())["x"].mutable_arguments(0)->Clear();
  ExpectRefused(Stage::Open, {"parameter 'x'", "an operand has neither a name nor a value"});
  model_ = IdentityModel();
  BlockOf(model_).add_outputs("");
  ExpectRefused(Stage::Open, {"an output has no name"});
  model_ = IdentityModel();
  Operation().mutable_outputs(0)->set_name("a\nb");
  ExpectRefused(Stage::Open, {"control character"});
}

TEST_F(ProgramReaderTest, CountsAreBounded) {
  for (int i = 0; i < 70'000; ++i) (*Operation().mutable_inputs())["x"].add_arguments()->set_name("x");
  ExpectRefused(Stage::Translate, {"parameter 'x': has 70001 operands, expected at most 65536"});
  model_ = IdentityModel();
  for (int i = 0; i < 70'000; ++i) Operation().add_outputs();
  ExpectRefused(Stage::Translate, {"has 70001 results, expected at most 65536"});
  model_ = IdentityModel();
  for (int i = 0; i < 200'000; ++i) BlockOf(model_).add_operations();
  ExpectRefused(Stage::Translate, {"function 'main': has 200001 operations, expected at most 200000"});
}

TEST_F(ProgramReaderTest, NestedBlocksAreNoticed) {
  Operation().add_blocks();
  EXPECT_TRUE(Read().operations[0].hasBlocks);
}

}  // namespace
}  // namespace ulmora::engine::package
