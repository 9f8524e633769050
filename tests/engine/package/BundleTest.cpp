#include "engine/package/Bundle.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

namespace fs = std::filesystem;
using testing::ExpectError;
using testing::ManifestText;
using testing::TemporaryFolder;

TEST(OpenBundle, FindsTheModelByTheManifest) {
  const TemporaryFolder folder;
  folder.Write("p.mlpackage/Manifest.json", ManifestText("there/net"));
  EXPECT_EQ(OpenBundle(folder.path() / "p.mlpackage").model, folder.path() / "p.mlpackage" / "Data" / "there" / "net");
}

TEST(OpenBundle, NothingThere) {
  const TemporaryFolder folder;
  ExpectError(Stage::Open, {"there is no file or directory", "gone.mlpackage"},
              [&] { static_cast<void>(OpenBundle(folder.path() / "gone.mlpackage")); });
}

TEST(OpenBundle, FindsTheProgramOfACompiledBundle) {
  const TemporaryFolder folder;
  folder.Write("c.mlmodelc/model.mil", "");
  for (const char* path : {"c.mlmodelc", "c.mlmodelc/", "c.mlmodelc//"}) {
    const Bundle bundle = OpenBundle((folder.path() / "").string() + path);
    EXPECT_EQ(bundle.form, BundleForm::Compiled);
    EXPECT_TRUE(fs::equivalent(bundle.model, folder.path() / "c.mlmodelc" / "model.mil")) << bundle.model;
  }
}

TEST(OpenBundle, TheEndingOfCompiledBundlesIsExact) {
  for (const char* path : {"a.mlmodelc", "a.mlmodelc/", "a.mlmodelc//", "/b/a.mlmodelc/"}) {
    EXPECT_TRUE(HasCompiledEnding(path)) << path;
  }
  for (const char* path :
       {"a.MLMODELC", "a.mlmodelc.x", "a.mlpackage", "a.mlmodel", "mlmodelc", "a.mlmodelc/b", "", "/"}) {
    EXPECT_FALSE(HasCompiledEnding(path)) << path;
  }
}

TEST(OpenBundle, SaysWhatElseItFound) {
  const TemporaryFolder folder;
  folder.Write("network.mlmodelc/model.espresso.net", "{}");
  folder.Write("network.mlmodelc/coremldata.bin", "x");
  folder.Write("pipeline.mlmodelc/model0/model.mil", "x");
  folder.Write("other.mlmodelc/coremldata.bin", "x");
  folder.Write("renamed.mlmodelc/Manifest.json", ManifestText());
  folder.Write("empty.mlmodelc/readme", "x");
  folder.Write("file.mlmodelc", "x");
  folder.Write("compiled.mlpackage/model.mil", "program(1.0)");
  folder.Write("older.MLMODELC/coremldata.bin", "x");
  folder.Write("text.mlpackage", "x");
  folder.Write("folder.mlpackage/readme", "x");
  const std::pair<const char*, const char*> cases[] = {
      {"network.mlmodelc",
       "is a compiled neural network (model.espresso.net), expected a compiled ML program (model.mil)"},
      {"pipeline.mlmodelc/", "is a compiled pipeline (model0, ...), expected a compiled ML program"},
      {"other.mlmodelc", "is a compiled model of another kind, expected a compiled ML program"},
      {"renamed.mlmodelc", "is a package under the name of a compiled model, expected the ending .mlpackage"},
      {"empty.mlmodelc", "holds no model.mil, expected a compiled ML program"},
      {"file.mlmodelc", "is not a directory, expected a package (.mlpackage), a compiled model (.mlmodelc)"},
      {"compiled.mlpackage", "is a compiled model, expected the ending .mlmodelc"},
      {"older.MLMODELC", "is a compiled model, expected the ending .mlmodelc"},
      {"text.mlpackage", "is not a directory, expected a package"},
      {"folder.mlpackage", "holds no Manifest.json"},
  };
  for (const auto& [name, text] : cases) {
    ExpectError(Stage::Open, {name, text}, [&, name = name] { static_cast<void>(OpenBundle(folder.path() / name)); });
  }
}

TEST(OpenBundle, SingleFileIsTheModelItself) {
  const TemporaryFolder folder;
  const fs::path file = folder.Write("single.mlmodel", "x");
  EXPECT_EQ(OpenBundle(file).model, file);
}

class WeightFileOfBundle : public ::testing::Test {
 protected:
  TemporaryFolder folder_;
  Bundle bundle_{folder_.path() / "model.mlmodel"};
};

TEST_F(WeightFileOfBundle, IsResolvedBesideTheModel) {
  const fs::path file = folder_.Write("weights/weight.bin", "");
  EXPECT_EQ(bundle_.WeightFile("@model_path/weights/weight.bin"), file);
  EXPECT_EQ(bundle_.WeightFile("weights/weight.bin"), file);
}

TEST_F(WeightFileOfBundle, FallsBackToTheNameInTheWeightsFolder) {
  const fs::path file = folder_.Write("weights/0-weight.bin", "");
  EXPECT_EQ(bundle_.WeightFile("@model_path/elsewhere/0-weight.bin"), file);
  EXPECT_EQ(bundle_.WeightFile("0-weight.bin"), file);
}

TEST_F(WeightFileOfBundle, MustLieWithinThePackage) {
  folder_.Write("weights/weight.bin", "");
  for (const char* name : {"@model_path/../weight.bin", "/etc/passwd", "@model_path//etc/passwd", "", "@model_path/",
                           "../weights/weight.bin", "weights/we\night.bin"}) {
    ExpectError(Stage::Load, {"does not lie within the package"}, [&] { static_cast<void>(bundle_.WeightFile(name)); });
  }
}

TEST_F(WeightFileOfBundle, MissingFileIsNamed) {
  ExpectError(Stage::Load, {"weight file '@model_path/weights/w.bin' is missing", "weights/w.bin"},
              [&] { static_cast<void>(bundle_.WeightFile("@model_path/weights/w.bin")); });
}

}  // namespace
}  // namespace ulmora::engine::package
