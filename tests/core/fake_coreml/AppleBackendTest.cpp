// What Core ML may do to the backend, scripted: everything that the contract's cases cannot reach.
#include "core/CoreMLBackend.h"
#include "tests/core/fake_coreml/FakeCoreML.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace ulmora::core {
namespace {

using fake_coreml::Element;
using fake_coreml::Model;
using fake_coreml::Outcome;
using fake_coreml::Tensor;
using fake_coreml::TheWorld;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class AppleBackend : public testing::Test {
 protected:
  AppleBackend() { TheWorld() = {}; }

  std::string Install(const Model& model, const std::string& name = "network.mlpackage") {
    const std::string path = folder_.Path(name);
    std::filesystem::create_directories(path);
    TheWorld().models[path] = model;
    return path;
  }
  std::string OpeningFailure(const Model& model) {
    const std::string path = Install(model);
    return ulmora::test::ThrownText<std::runtime_error>([&] { const CoreMLBackend backend(path); });
  }
  static std::string TileFailure(CoreMLBackend& backend, const cv::Mat& tile) {
    return ulmora::test::ThrownText<std::runtime_error>([&] { static_cast<void>(backend.RunTile(tile)); });
  }
  std::string TileFailure(const Model& model, int rows = 6, int cols = 9) {
    CoreMLBackend backend(Install(model));
    return TileFailure(backend, cv::Mat::zeros(rows, cols, CV_32FC3));
  }
  std::string Path(const std::string& name) { return folder_.Path(name); }

 private:
  ulmora::test::TemporaryFolder folder_;
};

Model Returning(const Tensor& output) {
  Model model;
  model.network = [output](const Tensor&) { return output; };
  return model;
}

TEST_F(AppleBackend, APackageIsCompiledAndItsResultLoaded) {
  const std::string path = Install(Model());
  const CoreMLBackend backend(path);
  EXPECT_THAT(TheWorld().calls.compiled, ElementsAre(path));
  EXPECT_THAT(TheWorld().calls.loaded, ElementsAre(path + ".compiled.mlmodelc"));
}

TEST_F(AppleBackend, ACompiledModelIsLoadedAsItIs) {
  const std::string path = Install(Model(), "network.mlmodelc");
  const CoreMLBackend backend(path), withSlash(path + "/");
  EXPECT_THAT(TheWorld().calls.compiled, IsEmpty());
  EXPECT_THAT(TheWorld().calls.loaded, ElementsAre(path, path));
}

TEST_F(AppleBackend, OnlyTheExactEndingSkipsCompilation) {
  for (const char* name : {"network.MLMODELC", "network.mlmodelc.old", "network.Mlmodelc", "mlmodelc"}) {
    TheWorld().calls = {};
    const std::string path = Install(Model(), name);
    const CoreMLBackend backend(path);
    EXPECT_THAT(TheWorld().calls.compiled, ElementsAre(path));
  }
}

TEST_F(AppleBackend, TheURLKnowsWhetherItNamesADirectory) {
  const CoreMLBackend directory(Install(Model()));
  const std::string file = Path("plain.mlpackage");
  std::ofstream(file) << "a model in one file";
  TheWorld().models[file] = Model();
  const CoreMLBackend plain(file);
  EXPECT_THAT(TheWorld().calls.compiledUrls, ElementsAre(EndsWith("network.mlpackage/"), EndsWith("plain.mlpackage")));
}

TEST_F(AppleBackend, PathsAreUTF8) {
  const std::string path = Install(Model(), "n\xc3\xa9t \xe2\x98\x85 100%.mlpackage");
  const CoreMLBackend backend(path);
  EXPECT_THAT(TheWorld().calls.compiled, ElementsAre(path));
}

TEST_F(AppleBackend, BytesThatAreNotUTF8NameNoPackage) {
  const std::string path = "\xff\xfe.mlpackage";
  EXPECT_THAT(ulmora::test::ThrownText<std::runtime_error>([&] { const CoreMLBackend backend(path); }),
              StartsWith("CoreML model package not found: " + path + "\nModel context: "));
}

TEST_F(AppleBackend, TheNeuralEngineIsNotUsed) {
  const CoreMLBackend package(Install(Model())), compiled(Install(Model(), "network.mlmodelc"));
  EXPECT_THAT(TheWorld().calls.computeUnits, ElementsAre(1, 1));
}

TEST_F(AppleBackend, CompilationFailsWithThePlatformsWordsOrNone) {
  Model model;
  model.compile = Outcome::Error("the package is too new");
  EXPECT_THAT(OpeningFailure(model),
              StartsWith("Unable to compile CoreML model: the package is too new\nModel context: backend=CoreML; "));
  model.compile = Outcome::Nothing();
  EXPECT_THAT(OpeningFailure(model),
              StartsWith("Unable to compile CoreML model: unknown CoreML error\nModel context: backend=CoreML; "));
  EXPECT_THAT(TheWorld().calls.loaded, IsEmpty());
}

TEST_F(AppleBackend, LoadingFailsWithThePlatformsWordsOrNone) {
  Model model;
  model.load = Outcome::Error("not enough memory");
  EXPECT_THAT(OpeningFailure(model),
              StartsWith("Unable to load CoreML model: not enough memory\nModel context: backend=CoreML; "));
  model.load = Outcome::Nothing();
  EXPECT_THAT(OpeningFailure(model),
              StartsWith("Unable to load CoreML model: unknown CoreML error\nModel context: backend=CoreML; "));
}

TEST_F(AppleBackend, ExactlyOneInputAndOneOutput) {
  const std::vector<std::string> none, one = {"a"}, two = {"a", "b"};
  for (const auto& [inputs, outputs] :
       {std::pair(none, one), std::pair(one, none), std::pair(two, one), std::pair(one, two), std::pair(none, none)}) {
    Model model;
    model.inputs = inputs;
    model.outputs = outputs;
    EXPECT_THAT(OpeningFailure(model),
                StartsWith("CoreML model must expose exactly one input and one output.\nModel context: "));
  }
  EXPECT_EQ(TheWorld().calls.predictions, 0);
}

TEST_F(AppleBackend, FeatureNamesAreTheModels) {
  for (const char* name : {"x", "var_17", "b\xc3\xbcld"}) {
    Model model;
    model.inputs = {name};
    model.outputs = {std::string(name) + "_out"};
    CoreMLBackend backend(Install(model));
    const cv::Mat tile(3, 4, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3));
    EXPECT_TRUE(ulmora::test::SameBits(backend.RunTile(tile), tile)) << name;
  }
}

TEST_F(AppleBackend, TheModelIsCompiledAndLoadedOnceForAllTiles) {
  CoreMLBackend backend(Install(Model()));
  for (int tile = 0; tile < 5; ++tile) static_cast<void>(backend.RunTile(cv::Mat::zeros(4, 4, CV_32FC3)));
  EXPECT_EQ(TheWorld().calls.compiled.size(), 1U);
  EXPECT_EQ(TheWorld().calls.loaded.size(), 1U);
  EXPECT_EQ(TheWorld().calls.predictions, 5);
}

// Gaps after each sample, each row and each plane.
struct Gaps {
  long sample, row, plane;
};
constexpr Gaps kGaps[] = {{0, 0, 0}, {0, 5, 0}, {0, 0, 7}, {2, 0, 0}, {1, 3, 11}};

TEST_F(AppleBackend, TheInputIsWrittenThroughItsStrides) {
  ulmora::test::Random random;
  for (const Gaps& gaps : kGaps) {
    Tensor seen;
    Model model;
    model.network = [&seen](const Tensor& input) { return seen = input; };
    CoreMLBackend backend(Install(model));
    TheWorld().sampleGap = gaps.sample;
    TheWorld().rowGap = gaps.row;
    TheWorld().planeGap = gaps.plane;
    const cv::Mat tile = ulmora::test::RandomImage(random, 5, 8, CV_32FC3);
    static_cast<void>(backend.RunTile(tile));
    ASSERT_THAT(seen.shape, ElementsAre(1, 3, 5, 8));
    EXPECT_EQ(seen.element, Element::Float32);
    for (int y = 0; y < tile.rows; ++y) {
      for (int x = 0; x < tile.cols; ++x) {
        for (int c = 0; c < 3; ++c) ASSERT_EQ(seen.At(c, y, x), tile.at<cv::Vec3f>(y, x)[c]);
      }
    }
  }
}

TEST_F(AppleBackend, TheOutputIsReadThroughItsStrides) {
  for (const Gaps& gaps : kGaps) {
    Tensor output({1, 3, 5, 8}, Element::Float32, gaps.sample, gaps.row, gaps.plane);
    cv::Mat expected(5, 8, CV_32FC3);
    for (int c = 0; c < 3; ++c) {
      for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 8; ++x) {
          const auto value = static_cast<float>(100 * c + 10 * y + x);
          output.At(c, y, x) = expected.at<cv::Vec3f>(y, x)[c] = value;
        }
      }
    }
    CoreMLBackend backend(Install(Returning(output)));
    EXPECT_TRUE(ulmora::test::SameBits(backend.RunTile(cv::Mat::zeros(5, 8, CV_32FC3)), expected));
  }
}

TEST_F(AppleBackend, OtherElementTypesAreRefusedWhateverTheShape) {
  for (const Element element : {Element::Float16, Element::Float64}) {
    EXPECT_EQ(TileFailure(Returning(Tensor({1, 3, 6, 9}, element))), "CoreML output tensor must be Float32.");
    EXPECT_EQ(TileFailure(Returning(Tensor({3, 6, 9}, element))), "CoreML output tensor must be Float32.");
  }
}

TEST_F(AppleBackend, OtherShapesAreRefused) {
  const std::vector<std::vector<long>> shapes = {{1, 3, 9, 6},    {1, 3, 6, 8}, {1, 3, 7, 9}, {2, 3, 6, 9},
                                                 {1, 1, 6, 9},    {1, 4, 6, 9}, {3, 6, 9},    {1, 1, 3, 6, 9},
                                                 {1, 3, 6, 9, 1}, {162}};
  for (const std::vector<long>& shape : shapes) {
    EXPECT_EQ(TileFailure(Returning(Tensor(shape))), "CoreML returned an unexpected output shape.")
        << testing::PrintToString(shape);
  }
}

TEST_F(AppleBackend, AResultWithoutAValueOrATensorIsRefused) {
  Model model;
  model.network = nullptr;
  EXPECT_EQ(TileFailure(model), "CoreML prediction did not return a multi-array output.");
  model.network = [](const Tensor&) { return std::nullopt; };
  EXPECT_EQ(TileFailure(model), "CoreML prediction did not return a multi-array output.");
}

TEST_F(AppleBackend, AFailingRunHasThePlatformsWordsOrNone) {
  Model model;
  model.predict = Outcome::Error("the device is gone");
  EXPECT_EQ(TileFailure(model), "CoreML prediction failed: the device is gone");
  model.predict = Outcome::Nothing();
  EXPECT_EQ(TileFailure(model), "CoreML prediction failed: unknown CoreML error");
}

TEST_F(AppleBackend, AFailingTensorOrProviderHasThePlatformsWordsOrNone) {
  CoreMLBackend backend(Install(Model()));
  const cv::Mat tile = cv::Mat::zeros(4, 4, CV_32FC3);
  TheWorld().provide = Outcome::Error("no features today");
  EXPECT_EQ(TileFailure(backend, tile), "Unable to create CoreML input features: no features today");
  TheWorld().provide = Outcome::Nothing();
  EXPECT_EQ(TileFailure(backend, tile), "Unable to create CoreML input features: unknown CoreML error");
  TheWorld().allocate = Outcome::Error("out of memory");
  EXPECT_EQ(TileFailure(backend, tile), "Unable to allocate CoreML input tensor: out of memory");
  TheWorld().allocate = Outcome::Nothing();
  EXPECT_EQ(TileFailure(backend, tile), "Unable to allocate CoreML input tensor: unknown CoreML error");
  // A tile that is refused is not even allocated for.
  EXPECT_EQ(TileFailure(backend, cv::Mat()), "CoreML input image is empty.");
  EXPECT_EQ(TheWorld().calls.predictions, 0);
  // And none of it stays.
  TheWorld().allocate = TheWorld().provide = Outcome();
  EXPECT_TRUE(ulmora::test::SameBits(backend.RunTile(tile), tile));
}

TEST_F(AppleBackend, ATilesTemporariesGoWithIt) {
  CoreMLBackend backend(Install(Model()));
  const cv::Mat tile(8, 8, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3));
  fake_coreml::LiveObjects();  // counting starts here
  static_cast<void>(backend.RunTile(tile));
  const long before = fake_coreml::LiveObjects();
  for (int run = 0; run < 1000; ++run) static_cast<void>(backend.RunTile(tile));
  EXPECT_EQ(fake_coreml::LiveObjects(), before);
}

TEST_F(AppleBackend, AFailedTilesTemporariesGoWithIt) {
  CoreMLBackend backend(Install(Returning(Tensor({1, 3, 4, 4}))));
  const cv::Mat tile = cv::Mat::zeros(8, 8, CV_32FC3);
  EXPECT_NE(TileFailure(backend, tile), "");
  const long before = fake_coreml::LiveObjects();
  for (int run = 0; run < 1000; ++run) static_cast<void>(TileFailure(backend, tile));
  EXPECT_EQ(fake_coreml::LiveObjects(), before);
}

TEST_F(AppleBackend, ABackendsObjectsGoWithIt) {
  Model broken;
  broken.outputs = {"a", "b"};
  const std::string path = Install(Model()), brokenPath = Install(broken, "broken.mlpackage");
  const auto openBoth = [&] {
    { const CoreMLBackend backend(path); }
    EXPECT_THAT(ulmora::test::ThrownText<std::runtime_error>([&] { const CoreMLBackend backend(brokenPath); }),
                HasSubstr("exactly one input"));
  };
  openBoth();
  const long before = fake_coreml::LiveObjects();
  for (int run = 0; run < 100; ++run) openBoth();
  EXPECT_EQ(fake_coreml::LiveObjects(), before);
  // The counter does count: an open backend holds its model and two names.
  const CoreMLBackend backend(path);
  EXPECT_GE(fake_coreml::LiveObjects(), before + 3);
}

}  // namespace
}  // namespace ulmora::core
