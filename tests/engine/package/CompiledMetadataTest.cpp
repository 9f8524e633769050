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
  EXPECT_EQ(metadata.inputs[1].kind, FeatureKind::Image);
  EXPECT_EQ(metadata.inputs[2].kind, FeatureKind::Other);
  ASSERT_EQ(metadata.outputs.size(), 1U);
  EXPECT_EQ(metadata.outputs[0].element, ElementType::Float16);
  EXPECT_TRUE(metadata.outputs[0].shape.empty());
  const std::map<std::string, std::string> texts = {
      {"author", "A"}, {"license", "L"}, {"versionString", "2"}, {"shortDescription", "D"}, {"k", "v"}};
  EXPECT_EQ(metadata.metadata, texts);
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
                  "has the shape '" + std::string(shape) + "'");
  }
}

}  // namespace
}  // namespace ulmora::engine::package
