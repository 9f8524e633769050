#include "engine/package/CompiledMetadata.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using testing::ExpectError;
using testing::TemporaryFolder;

class CompiledMetadataTest : public ::testing::Test {
 protected:
  CompiledMetadata Read(const std::string& text) { return ReadCompiledMetadata(folder_.Write("metadata.json", text)); }

  void ExpectRefused(const std::string& text, const std::string& message) {
    ExpectError(Stage::Open, {"metadata.json'", message}, [&] { static_cast<void>(Read(text)); });
  }

  TemporaryFolder folder_;
};

TEST_F(CompiledMetadataTest, EverythingThatIsUsed) {
  const CompiledMetadata metadata = Read(R"([{
    "metadataOutputVersion": "3.0", "specificationVersion": 7, "modelType": {"name": "MLModelType_mlProgram"},
    "author": "A", "license": "L", "version": "2", "shortDescription": "D", "userDefinedMetadata": {"k": "v", "n": 3},
    "inputSchema": [{"name": "image", "type": "MultiArray", "dataType": "Float32", "shape": "[1, 3, 64, 48]",
                     "hasShapeFlexibility": "0", "isOptional": "0"},
                    {"name": "picture", "type": "Image"}, {"name": "words", "type": "String"}],
    "outputSchema": [{"name": "out", "type": "MultiArray", "dataType": "Float16", "shape": "[]"}],
    "mlProgramOperationTypeHistogram": {"Ios16.mul": 1}}])");
  EXPECT_EQ(metadata.specificationVersion, 7);
  EXPECT_TRUE(metadata.functionName.empty());
  ASSERT_EQ(metadata.inputs.size(), 3U);
  EXPECT_EQ(metadata.inputs[0].name, "image");
  EXPECT_EQ(metadata.inputs[0].kind, FeatureKind::Tensor);
  EXPECT_EQ(metadata.inputs[0].shape, (Shape{1, 3, 64, 48}));
  EXPECT_EQ(metadata.inputs[0].ranges, (std::vector<SizeRange>{{1, 1}, {3, 3}, {64, 64}, {48, 48}}));
  EXPECT_EQ(metadata.inputs[1].kind, FeatureKind::Image);
  EXPECT_EQ(metadata.inputs[2].kind, FeatureKind::Other);
  ASSERT_EQ(metadata.outputs.size(), 1U);
  EXPECT_EQ(metadata.outputs[0].element, ElementType::Float16);
  EXPECT_TRUE(metadata.outputs[0].shape.empty());
  const std::map<std::string, std::string> texts = {
      {"author", "A"}, {"license", "L"}, {"versionString", "2"}, {"shortDescription", "D"}, {"k", "v"}};
  EXPECT_EQ(metadata.metadata, texts);
}

TEST_F(CompiledMetadataTest, FlexibleShapes) {
  const auto read = [&](const std::string& members) {
    return Read(R"([{"inputSchema": [{"name": "x", "type": "MultiArray", "dataType": "Float32", "shape": "[1, 8]")" +
                members + "}]}]")
        .inputs.at(0);
  };
  const Feature ranged = read(R"(, "hasShapeFlexibility": "1", "shapeRange": "[[1, 1], [8, -1]]")");
  EXPECT_EQ(ranged.shape, (Shape{1, 8}));
  EXPECT_EQ(ranged.ranges, (std::vector<SizeRange>{{1, 1}, {8, SizeRange::kUnbounded}}));
  const Feature listed = read(R"(, "hasShapeFlexibility": "1", "enumeratedShapes": "[[1, 8], [2, 9]]")");
  EXPECT_EQ(listed.enumerated, (std::vector<Shape>{{1, 8}, {2, 9}}));
  EXPECT_TRUE(listed.ranges.empty());
  // The flag decides; without it, ranges and lists do.
  const Feature fixed = read(R"(, "hasShapeFlexibility": "0", "shapeRange": "", "enumeratedShapes": "[[2, 9]]")");
  EXPECT_EQ(fixed.ranges, (std::vector<SizeRange>{{1, 1}, {8, 8}}));
  EXPECT_TRUE(fixed.enumerated.empty());
  EXPECT_EQ(read(R"(, "shapeRange": "[[1, 2], [8, 8]]")").ranges, (std::vector<SizeRange>{{1, 2}, {8, 8}}));
  const Feature open = read("");
  EXPECT_TRUE(open.ranges.empty() && open.enumerated.empty());
}

TEST_F(CompiledMetadataTest, AllOfItMayBeAbsent) {
  const CompiledMetadata metadata = Read("[{}]");
  EXPECT_EQ(metadata.specificationVersion, 0);
  EXPECT_TRUE(metadata.inputs.empty());
  EXPECT_TRUE(metadata.metadata.empty());
}

TEST_F(CompiledMetadataTest, TheDefaultFunctionHasTheInterface) {
  const CompiledMetadata metadata = Read(R"([{"defaultFunctionName": "b", "functions": [
    {"name": "a", "inputSchema": [{"name": "x", "type": "MultiArray", "dataType": "Float32", "shape": "[1]"}]},
    {"name": "b", "inputSchema": [{"name": "y", "type": "MultiArray", "dataType": "Float32", "shape": "[2]"}]}]}])");
  EXPECT_EQ(metadata.functionName, "b");
  ASSERT_EQ(metadata.inputs.size(), 1U);
  EXPECT_EQ(metadata.inputs[0].name, "y");
}

TEST_F(CompiledMetadataTest, Malformed) {
  ExpectRefused("", "is not a JSON document");
  ExpectRefused("[{", "is not a JSON document");
  ExpectRefused(std::string(100'000, '['), "is not a JSON document");
  ExpectRefused("{}", "is not an array of one object");
  ExpectRefused("[]", "is not an array of one object");
  ExpectRefused("[{}, {}]", "is not an array of one object");
  ExpectRefused("[1]", "is not an array of one object");
  ExpectRefused(R"([{"specificationVersion": -1}])", "'specificationVersion' is no version");
  ExpectRefused(R"([{"specificationVersion": 1e300}])", "'specificationVersion' is no version");
  ExpectRefused(R"([{"inputSchema": {}}])", "'inputSchema' is not a list");
  ExpectRefused(R"([{"inputSchema": [1]}])", "an entry of 'inputSchema' is not an object");
  ExpectRefused(R"([{"inputSchema": [{}]}])", "an entry of 'inputSchema' has no name");
  ExpectRefused(R"([{"inputSchema": [{"name": "x"}, {"name": "x"}]}])",
                "entry 'x' of 'inputSchema' is described twice");
  ExpectRefused(R"([{"outputSchema": [{"name": "x", "type": "MultiArray", "dataType": "Float99"}]}])",
                "entry 'x' of 'outputSchema': has the unknown element type 'Float99'");
  for (const char* shape :
       {"1", "[", "[1", "[1,]", "[a]", "[0]", "[-1]", "[1 2]", "[1,2,3,4,5,6,7,8,9]", "[4294967296]"}) {
    ExpectRefused(R"([{"inputSchema": [{"name": "x", "type": "MultiArray", "dataType": "Float32", "shape": ")" +
                      std::string(shape) + R"("}]}])",
                  "entry 'x' of 'inputSchema': 'shape' is '" + std::string(shape) + "': line 1, column ");
  }
  const auto refuse = [&](const std::string& member, const std::string& message) {
    ExpectRefused(
        R"([{"inputSchema": [{"name": "x", "type": "MultiArray", "dataType": "Float32", "shape": "[1, 8]", )" + member +
            "}]}]",
        message);
  };
  refuse(R"("shapeRange": "[[1, 1]]")", "has ranges for 1 dimensions, but shape [1, 8]");
  refuse(R"("shapeRange": "[[2, 1], [8, 8]]")",
         "'shapeRange' is '[[2, 1], [8, 8]]': line 1, column 2: has a dimension");
  refuse(R"("shapeRange": "[[1, 1], [8, 8]] [")", "expected the end, found '['");
  refuse(R"("enumeratedShapes": "[[1, 8], 3]")", "expected '[', found '3'");
}

}  // namespace
}  // namespace ulmora::engine::package
