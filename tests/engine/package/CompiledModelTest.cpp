#include "engine/package/CompiledModel.h"
#include "engine/package/ReadModel.h"
#include "tests/engine/package/PackageTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using testing::ExpectError;
using testing::LittleEndian;
using testing::TemporaryFolder;
using testing::WeightFileBuilder;

constexpr const char* kProgram = R"(program(1.3)
{
    func main<ios16>(tensor<fp32, [1, 3, 8, 8]> x, tensor<fp16, [1, ?]> k) {
            tensor<fp16, [2]> w = const()[name = string("w"), val = tensor<fp16, [2]>(BLOBFILE(path = string("@model_path/weights/weight.bin"), offset = uint64(64)))];
            tensor<fp16, [1, 3, 8, 8]> y = f(w = w, x = x)[name = string("c1")];
        } -> (y, x);
}
)";

class CompiledModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WeightFileBuilder weights;
    weights.Add(1, LittleEndian(0x3C00, 2) + LittleEndian(0xB800, 2));
    folder_.Write("c.mlmodelc/weights/weight.bin", weights.bytes());
    folder_.Write("c.mlmodelc/model.mil", kProgram);
  }

  [[nodiscard]] ModelSource Read() const { return ReadModel(folder_.path() / "c.mlmodelc"); }

  TemporaryFolder folder_;
};

TEST_F(CompiledModelTest, InterfaceOfTheFunctionWhereNothingElseSaysIt) {
  const ModelSource source = Read();
  EXPECT_EQ(source.specificationVersion, 7);
  ASSERT_EQ(source.inputs.size(), 2U);
  EXPECT_EQ(source.inputs[0].name, "x");
  EXPECT_EQ(source.inputs[0].shape, (Shape{1, 3, 8, 8}));
  EXPECT_EQ(DescribeAccepted(source.inputs[0]), "[1, 3, 8, 8]");
  EXPECT_EQ(source.inputs[1].element, ElementType::Float16);
  EXPECT_TRUE(source.inputs[1].shape.empty());
  EXPECT_EQ(DescribeAccepted(source.inputs[1]), "[1, 1 or more]");
  ASSERT_EQ(source.outputs.size(), 2U);
  EXPECT_EQ(source.outputs[0].name, "y");
  EXPECT_EQ(source.outputs[0].element, ElementType::Float16);
  EXPECT_EQ(source.outputs[1].name, "x");
  EXPECT_THAT(source.program.operations.at(0).attributes.at("val").floats(), ::testing::ElementsAre(1.0F, -0.5F));
}

TEST_F(CompiledModelTest, InterfaceOfTheDescription) {
  folder_.Write("c.mlmodelc/metadata.json", R"([{"specificationVersion": 8, "author": "A",
    "inputSchema": [{"name": "k", "type": "MultiArray", "dataType": "Float16", "shape": "[1, 5]"},
                    {"name": "x", "type": "MultiArray", "dataType": "Float32", "shape": ""}],
    "outputSchema": [{"name": "y", "type": "MultiArray", "dataType": "Float16", "shape": "[]"}]}])");
  const ModelSource source = Read();
  EXPECT_EQ(source.specificationVersion, 8);
  EXPECT_EQ(source.inputs.at(0).name, "k");
  EXPECT_EQ(source.inputs.at(0).shape, (Shape{1, 5}));
  EXPECT_EQ(source.outputs.size(), 1U);
  EXPECT_EQ(source.metadata.at("author"), "A");
}

TEST_F(CompiledModelTest, ShapesThatTheProgramAllowsAreTheFeatures) {
  const auto withShapes = [&](const std::string& allowed) {
    folder_.Write("c.mlmodelc/model.mil",
                  "program(1.3) { func main<ios16>(tensor<fp32, [1, ?]> x) [FlexibleShapeInformation = tuple<t>(("
                  "(\"DefaultShapes\", {{\"x\", [1, 8]}}), " +
                      allowed + "))] { } -> (x); }");
    return Read().inputs.at(0);
  };
  const Feature ranged = withShapes("(\"RangeDims\", {{\"x\", [[1, 1], [4, 16]]}})");
  EXPECT_EQ(ranged.shape, (Shape{1, 8}));
  EXPECT_EQ(DescribeAccepted(ranged), "[1, 4 to 16]");
  const std::string sets = "(\"EnumeratedShapes\", {{\"a\", {{\"x\", [1, 8]}}}, {\"b\", {{\"x\", [1, 12]}}}})";
  EXPECT_EQ(DescribeAccepted(withShapes(sets)), "[1, 8] or [1, 12]");
  // The description has the last word.
  folder_.Write("c.mlmodelc/metadata.json", R"([{"inputSchema": [{"name": "x", "type": "MultiArray",
    "dataType": "Float32", "shape": "[1, 8]", "hasShapeFlexibility": "1", "shapeRange": "[[1, 1], [2, 9]]"}]}])");
  EXPECT_EQ(DescribeAccepted(withShapes(sets)), "[1, 2 to 9]");
  folder_.Write("c.mlmodelc/metadata.json", R"([{"inputSchema": [{"name": "x", "type": "MultiArray",
    "dataType": "Float32", "shape": "[1, 8]", "hasShapeFlexibility": "1"}]}])");
  EXPECT_EQ(DescribeAccepted(withShapes(sets)), "[1, 8] or [1, 12]");
  ExpectError(Stage::Open, {"input 'x': has ranges for 1 dimensions, but shape [1, 8]"},
              [&] { static_cast<void>(withShapes("(\"RangeDims\", {{\"x\", [[1, 1]]}})")); });
}

TEST_F(CompiledModelTest, OutputsThatNothingDefinesAreLeftToTheImporter) {
  folder_.Write("c.mlmodelc/model.mil", "program(1.0) { func main<ios15>(fp32 x) { } -> (gone, x, x); }");
  const ModelSource source = Read();
  ASSERT_EQ(source.outputs.size(), 1U);
  EXPECT_EQ(source.outputs[0].name, "x");
}

TEST_F(CompiledModelTest, MessagesNameFileFunctionAndPosition) {
  std::string damaged = kProgram;
  damaged.replace(damaged.find("uint64(64)"), 10, "uint64(65)");
  folder_.Write("c.mlmodelc/model.mil", damaged);
  ExpectError(Stage::Load, {"c.mlmodelc/model.mil': function 'main': line 4, column ", "record at offset 65 of '"},
              [&] { static_cast<void>(Read()); });
}

TEST_F(CompiledModelTest, FilesThatAreMissingOrNoText) {
  folder_.Write("c.mlmodelc/model.mil", "");
  ExpectError(Stage::Open, {"model.mil': line 1, column 1: expected 'program'"}, [&] { static_cast<void>(Read()); });
  std::filesystem::remove(folder_.path() / "c.mlmodelc" / "model.mil");
  std::filesystem::create_directory(folder_.path() / "c.mlmodelc" / "model.mil");
  ExpectError(Stage::Open, {"model.mil'"}, [&] { static_cast<void>(Read()); });
}

}  // namespace
}  // namespace ulmora::engine::package
