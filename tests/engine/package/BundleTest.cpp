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

TEST(OpenBundle, SaysWhatElseItFound) {
  const TemporaryFolder folder;
  folder.Write("compiled.mlmodelc/model.mil", "program(1.0)");
  folder.Write("older.mlmodelc/coremldata.bin", "x");
  folder.Write("single.mlmodel", "x");
  folder.Write("text.mlpackage", "x");
  folder.Write("folder.mlpackage/readme", "x");
  const auto open = [&](const char* name) { static_cast<void>(OpenBundle(folder.path() / name)); };
  ExpectError(Stage::Open, {"is a compiled model (.mlmodelc), expected a package (.mlpackage)"},
              [&] { open("compiled.mlmodelc"); });
  ExpectError(Stage::Open, {"is a compiled model (.mlmodelc)"}, [&] { open("older.mlmodelc"); });
  ExpectError(Stage::Open, {"is a single-file model (.mlmodel), expected a package"}, [&] { open("single.mlmodel"); });
  ExpectError(Stage::Open, {"is not a directory, expected a package"}, [&] { open("text.mlpackage"); });
  ExpectError(Stage::Open, {"holds no Manifest.json"}, [&] { open("folder.mlpackage"); });
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
