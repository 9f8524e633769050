#include "engine/package/ReadModel.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ulmora::engine::package {
namespace {

using testing::AddConst;
using testing::ExpectError;
using testing::Fixtures;
using testing::IdentityModel;
using testing::LittleEndian;
using testing::TemporaryFolder;
using testing::WeightFileBuilder;
using testing::WritePackage;

TEST(ReadModel, ConvertedPackage) {
  const ModelSource source = ReadModel(Fixtures() / "identity.mlpackage");
  EXPECT_EQ(source.specificationVersion, 6);
  ASSERT_EQ(source.inputs.size(), 1U);
  EXPECT_EQ(source.inputs[0].name, "image");
  EXPECT_EQ(source.inputs[0].element, ElementType::Float32);
  EXPECT_EQ(source.inputs[0].shape, (Shape{1, 3, 512, 512}));
  ASSERT_EQ(source.outputs.size(), 1U);
  EXPECT_EQ(source.outputs[0].name, "denoised");
  EXPECT_TRUE(source.outputs[0].shape.empty());
  ASSERT_EQ(source.program.operations.size(), 1U);
  EXPECT_EQ(source.program.operations[0].type, "identity");
}

TEST(ReadModel, InterfaceTypesOfConvertedPackages) {
  const ModelSource source = ReadModel(Fixtures() / "float16-output.mlpackage");
  EXPECT_EQ(source.inputs.at(0).element, ElementType::Float32);
  EXPECT_EQ(source.outputs.at(0).element, ElementType::Float16);
  EXPECT_EQ(ReadModel(Fixtures() / "two-outputs.mlpackage").outputs.size(), 2U);
}

TEST(ReadModel, WeightsOfAConvertedPackage) {
  const ModelSource source = ReadModel(Fixtures() / "unet-ios15-float16.mlpackage");
  const auto& operations = source.program.operations;
  const auto head = std::find_if(operations.begin(), operations.end(), [](const SourceOperation& operation) {
    return operation.type == "const" && operation.attributes.at("val").shape() == Shape{8, 3, 3, 3};
  });
  ASSERT_NE(head, operations.end());
  const Tensor& weight = head->attributes.at("val");
  EXPECT_EQ(weight.element(), ElementType::Float16);
  // PyTorch draws them uniformly between -1 / sqrt(27) and 1 / sqrt(27).
  const auto [lowest, highest] = std::minmax_element(weight.floats().begin(), weight.floats().end());
  EXPECT_LT(*lowest, -0.15F);
  EXPECT_GT(*lowest, -0.1926F);
  EXPECT_GT(*highest, 0.15F);
  EXPECT_LT(*highest, 0.1926F);
}

TEST(ReadModel, EveryCommittedPackageCanBeRead) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(Fixtures())) {
    if (entry.path().extension() != ".mlpackage") continue;
    EXPECT_NO_THROW(static_cast<void>(ReadModel(entry.path()))) << entry.path();
    ++count;
  }
  EXPECT_GE(count, 25);
}

TEST(ReadModel, ACompiledBundleHoldsWhatItsPackageDoes) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(Fixtures())) {
    if (entry.path().extension() != ".mlmodelc") continue;
    SCOPED_TRACE(entry.path());
    ++count;
    const ModelSource compiled = ReadModel(entry.path());
    const ModelSource package = ReadModel(std::filesystem::path(entry.path()).replace_extension(".mlpackage"));
    EXPECT_EQ(compiled.specificationVersion, package.specificationVersion);
    EXPECT_EQ(compiled.program.opset, package.program.opset);
    EXPECT_EQ(compiled.program.outputs, package.program.outputs);
    ASSERT_EQ(compiled.inputs.size(), package.inputs.size());
    for (std::size_t i = 0; i < compiled.inputs.size(); ++i) {
      EXPECT_EQ(compiled.inputs[i].name, package.inputs[i].name);
      EXPECT_EQ(compiled.inputs[i].shape, package.inputs[i].shape);
    }
    // Some constants stand inline in the text; the operations that compute are the same, one by one.
    const auto computing = [](const ModelSource& source) {
      std::vector<const SourceOperation*> operations;
      for (const SourceOperation& operation : source.program.operations) {
        if (operation.type != "const") operations.push_back(&operation);
      }
      return operations;
    };
    const auto found = computing(compiled);
    const auto expected = computing(package);
    ASSERT_EQ(found.size(), expected.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
      EXPECT_EQ(found[i]->type, expected[i]->type);
      EXPECT_EQ(found[i]->name, expected[i]->name);
      EXPECT_EQ(found[i]->inputs.size(), expected[i]->inputs.size());
      EXPECT_EQ(found[i]->results.front().type, expected[i]->results.front().type);
    }
  }
  EXPECT_GE(count, 8);
}

TEST(ReadModel, MissingAndForeignPaths) {
  const TemporaryFolder folder;
  ExpectError(Stage::Open, {"there is no file or directory"},
              [&] { static_cast<void>(ReadModel(folder.path() / "gone")); });
  ExpectError(Stage::Open, {"holds no Manifest.json"}, [&] { static_cast<void>(ReadModel(folder.path())); });
}

TEST(ReadModel, ModelFileThatTheManifestNamesIsMissing) {
  const TemporaryFolder folder;
  folder.Write("p.mlpackage/Manifest.json", testing::ManifestText("gone.mlmodel"));
  ExpectError(Stage::Open, {"cannot open", "Data/gone.mlmodel", "No such file"},
              [&] { static_cast<void>(ReadModel(folder.path() / "p.mlpackage")); });
}

TEST(ReadModel, OtherTypesOfModelsAreNamed) {
  const auto expectNamed = [](const char* name, const auto& set) {
    const TemporaryFolder folder;
    coreml::Model model = IdentityModel();
    set(model);
    ExpectError(Stage::Translate,
                {"model.mlmodel'", std::string("the model is of type ") + name +
                                       ", expected an ML program (mlProgram) or a neural network (neuralNetwork)"},
                [&] { static_cast<void>(ReadModel(WritePackage(folder, model))); });
  };
  expectNamed("neuralNetworkRegressor", [](coreml::Model& model) { model.mutable_neuralnetworkregressor(); });
  expectNamed("neuralNetworkClassifier", [](coreml::Model& model) { model.mutable_neuralnetworkclassifier(); });
  expectNamed("pipeline", [](coreml::Model& model) { model.mutable_pipeline(); });
  expectNamed("unknown", [](coreml::Model& model) { model.clear_mlprogram(); });
}

TEST(ReadModel, NewestOperationSetInADefaultFunctionOfAnotherName) {
  const TemporaryFolder folder;
  coreml::Model model = IdentityModel();
  model.set_specificationversion(10);
  auto& functions = *model.mutable_mlprogram()->mutable_functions();
  coreml::Function& function = functions["denoise"];
  function = functions["main"];
  function.set_opset("CoreML9");
  (*function.mutable_block_specializations())["CoreML9"] = functions["main"].block_specializations().at("CoreML5");
  functions["main"].clear_block_specializations();
  coreml::ModelDescription& description = *model.mutable_description();
  description.set_defaultfunctionname("denoise");
  coreml::FunctionDescription& described = *description.add_functions();
  described.set_name("denoise");
  description.mutable_input()->Swap(described.mutable_input());
  description.mutable_output()->Swap(described.mutable_output());
  const ModelSource source = ReadModel(WritePackage(folder, model));
  EXPECT_EQ(source.specificationVersion, 10);
  EXPECT_EQ(source.program.opset, "CoreML9");
  EXPECT_EQ(source.program.operations.size(), 1U);
  EXPECT_EQ(source.inputs.at(0).name, "x");
  EXPECT_EQ(source.outputs.at(0).name, "y");
}

TEST(ReadModel, ASingleFileMayHoldAProgram) {
  const TemporaryFolder folder;
  const std::filesystem::path file = folder.Write("program.mlmodel", IdentityModel().SerializeAsString());
  const ModelSource source = ReadModel(file);
  EXPECT_FALSE(source.network);
  EXPECT_EQ(source.program.operations.size(), 1U);
}

TEST(ReadModel, WeightsOfAProgramInASingleFileLieBesideIt) {
  const TemporaryFolder folder;
  coreml::Model model = IdentityModel();
  coreml::Value& value = AddConst(model, "weight", coreml::FLOAT16, {4});
  value.mutable_blobfilevalue()->set_filename("@model_path/weights/weight.bin");
  value.mutable_blobfilevalue()->set_offset(64);
  const std::filesystem::path file = folder.Write("program.mlmodel", model.SerializeAsString());
  ExpectError(Stage::Load, {"weight file '@model_path/weights/weight.bin' is missing"},
              [&] { static_cast<void>(ReadModel(file)); });
  WeightFileBuilder weights;
  weights.Add(1, LittleEndian(0, 8));
  folder.Write("weights/weight.bin", weights.bytes());
  EXPECT_NO_THROW(static_cast<void>(ReadModel(file)));
}

TEST(ReadModel, MessagesNameFileOperationAndRecord) {
  const TemporaryFolder folder;
  coreml::Model model = IdentityModel();
  coreml::Value& value = AddConst(model, "weight", coreml::FLOAT16, {4});
  value.mutable_blobfilevalue()->set_filename("@model_path/weights/weight.bin");
  value.mutable_blobfilevalue()->set_offset(64);
  WeightFileBuilder weights;
  weights.Add(1, LittleEndian(0, 6));
  ExpectError(
      Stage::Load,
      {"com.apple.CoreML/model.mlmodel': function 'main': 'const' operation 'weight': attribute 'val': record at "
       "offset 64 of '",
       "weight.bin': holds 6 bytes, expected 8 for float16 [4]"},
      [&] { static_cast<void>(ReadModel(WritePackage(folder, model, weights.bytes()))); });
}

TEST(ReadModel, PackagesBehindSymbolicLinksAreFine) {
  const TemporaryFolder folder;
  std::filesystem::create_directory_symlink(Fixtures() / "gain-half.mlpackage", folder.path() / "link.mlpackage");
  EXPECT_EQ(ReadModel(folder.path() / "link.mlpackage").inputs.size(), 1U);
}

}  // namespace
}  // namespace ulmora::engine::package
