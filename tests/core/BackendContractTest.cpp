// What CoreMLBackend promises, whatever is behind it: compiled once for each road, with the same cases and texts.
#include "core/CoreMLBackend.h"
#include "tests/core/BackendContract.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace ulmora::core {
namespace {

namespace fs = std::filesystem;
using test::Network;
using testing::AllOf;
using testing::EndsWith;
using testing::Gt;
using testing::SizeIs;
using testing::StartsWith;

std::string Context(const std::string& path, const std::string& kind) {
  return "\nModel context: backend=CoreML; expected=.mlpackage or .mlmodelc directory bundle; source=backend caller; "
         "resolved path='" +
         path + "'; path kind=" + kind;
}

constexpr const char* kDirectory = "directory (CoreML .mlpackage/.mlmodelc models are directory bundles)";

// A failure of two parts: the contract's words, then a message of the road's own, which must not be empty.
auto Says(const std::string& words, const std::string& end = "") {
  return AllOf(StartsWith(words), EndsWith(end), SizeIs(Gt(words.size() + end.size())));
}

class BackendContract : public testing::Test {
 protected:
  std::string OpeningFailure(const std::string& path) {
    return ulmora::test::ThrownText<std::runtime_error>([&] { const CoreMLBackend backend(path); });
  }
  std::string TileFailure(CoreMLBackend& backend, const cv::Mat& tile) {
    return ulmora::test::ThrownText<std::runtime_error>([&] { static_cast<void>(backend.RunTile(tile)); });
  }
  std::string Package(Network network) { return test::PackageOf(network, folder_); }
  std::string Directory(const std::string& name) {
    fs::create_directories(folder_.Path(name));
    return folder_.Path(name);
  }
  std::string Path(const std::string& name) { return folder_.Path(name); }

 private:
  ulmora::test::TemporaryFolder folder_;
};

TEST_F(BackendContract, AnAbsentPackageIsNamedWithItsContext) {
  for (const std::string& path : {Path("absent.mlpackage"), Path("absent.mlmodelc"), std::string()}) {
    EXPECT_EQ(OpeningFailure(path), "CoreML model package not found: " + path + Context(path, "missing"));
  }
}

TEST_F(BackendContract, AnythingElseThatIsNoPackageCannotBeCompiled) {
  const std::string directory = Directory("empty.mlpackage");
  EXPECT_THAT(OpeningFailure(directory), Says("Unable to compile CoreML model: ", Context(directory, kDirectory)));
  const std::string file = Path("weights.mlpackage");
  std::ofstream(file) << "no package";
  EXPECT_THAT(OpeningFailure(file), Says("Unable to compile CoreML model: ", Context(file, "regular file")));
}

TEST_F(BackendContract, ACompiledModelSkipsCompilationByItsExactEnding) {
  for (const char* name : {"empty.mlmodelc", "other.mlmodelc/"}) {
    const std::string path = Directory(name);
    EXPECT_THAT(OpeningFailure(path), Says("Unable to load CoreML model: ", Context(path, kDirectory)));
  }
  for (const char* name : {"empty.MLMODELC", "empty.mlmodelc.old", "mlmodelc", "empty.mlmodelcx"}) {
    const std::string path = Directory(name);
    EXPECT_THAT(OpeningFailure(path), Says("Unable to compile CoreML model: ", Context(path, kDirectory)));
  }
}

TEST_F(BackendContract, WhatCannotBeTranslatedCannotBeCompiled) {
  const std::string path = Package(Network::Untranslatable);
  EXPECT_THAT(OpeningFailure(path), Says("Unable to compile CoreML model: ", Context(path, kDirectory)));
}

TEST_F(BackendContract, MissingConstantsCannotBeLoaded) {
  const std::string path = Package(Network::WithoutConstants);
  EXPECT_THAT(OpeningFailure(path), Says("Unable to load CoreML model: ", Context(path, kDirectory)));
}

TEST_F(BackendContract, TwoOutputsAreRefusedBeforeAnyTile) {
  const std::string path = Package(Network::TwoOutputs);
  EXPECT_EQ(OpeningFailure(path),
            "CoreML model must expose exactly one input and one output." + Context(path, kDirectory));
}

TEST_F(BackendContract, OtherTilesAreRefusedInOrder) {
  CoreMLBackend backend(Package(Network::Half));
  EXPECT_EQ(TileFailure(backend, cv::Mat()), "CoreML input image is empty.");
  EXPECT_EQ(TileFailure(backend, cv::Mat::zeros(16, 16, CV_32FC1)), "CoreML input image must be CV_32FC3.");
  EXPECT_EQ(TileFailure(backend, cv::Mat::zeros(16, 16, CV_64FC3)), "CoreML input image must be CV_32FC3.");
  const cv::Mat sheet = cv::Mat::zeros(16, 20, CV_32FC3);
  EXPECT_EQ(TileFailure(backend, sheet(cv::Rect(0, 0, 16, 16))), "CoreML input image must be continuous.");
  const cv::Mat integers = cv::Mat::zeros(16, 20, CV_8UC3);
  EXPECT_EQ(TileFailure(backend, integers(cv::Rect(0, 0, 16, 16))), "CoreML input image must be CV_32FC3.");
}

TEST_F(BackendContract, IdentityReturnsEverySampleInItsPlace) {
  ulmora::test::Random random;
  for (const Network network : {Network::Identity, Network::IdentityOf512}) {
    CoreMLBackend backend(Package(network));
    const cv::Mat tile = ulmora::test::RandomImage(random, 512, 512, CV_32FC3, -2.0, 3.0);
    const cv::Mat before = tile.clone();
    const cv::Mat result = backend.RunTile(tile);
    EXPECT_TRUE(ulmora::test::SameBits(result, before));
    EXPECT_TRUE(ulmora::test::SameBits(tile, before));
    EXPECT_NE(result.data, tile.data);
    EXPECT_TRUE(result.isContinuous());
  }
}

TEST_F(BackendContract, ChannelsAreThePlanesInTheirOrder) {
  CoreMLBackend backend(Package(Network::ChannelGains));
  const cv::Mat tile(24, 40, CV_32FC3, cv::Scalar(0.25, 0.5, 1.0));
  EXPECT_TRUE(ulmora::test::SameBits(backend.RunTile(tile), cv::Mat(24, 40, CV_32FC3, cv::Scalar::all(0.25))));
}

TEST_F(BackendContract, ResultsStayWhenTheNextTileRuns) {
  ulmora::test::Random random;
  CoreMLBackend backend(Package(Network::Half));
  const cv::Mat first = ulmora::test::RandomImage(random, 64, 64, CV_32FC3);
  const cv::Mat second = ulmora::test::RandomImage(random, 64, 64, CV_32FC3);
  const cv::Mat firstResult = backend.RunTile(first), secondResult = backend.RunTile(second);
  EXPECT_TRUE(ulmora::test::SameBits(firstResult, cv::Mat(first * 0.5)));
  EXPECT_TRUE(ulmora::test::SameBits(secondResult, cv::Mat(second * 0.5)));
}

TEST_F(BackendContract, TheSizeIsTheTiles) {
  ulmora::test::Random random;
  CoreMLBackend backend(Package(Network::Half));
  for (const cv::Size size : {cv::Size(64, 64), cv::Size(48, 16), cv::Size(17, 31), cv::Size(64, 64)}) {
    const cv::Mat tile = ulmora::test::RandomImage(random, size.height, size.width, CV_32FC3);
    EXPECT_TRUE(ulmora::test::SameBits(backend.RunTile(tile), cv::Mat(tile * 0.5))) << size;
  }
}

TEST_F(BackendContract, ASizeThatTheModelDoesNotTakeFailsAtTheTile) {
  CoreMLBackend backend(Package(Network::IdentityOf512));
  const std::string failure = TileFailure(backend, cv::Mat::zeros(256, 256, CV_32FC3));
  EXPECT_THAT(failure, Says("CoreML prediction failed: "));
  EXPECT_THAT(failure, testing::Not(testing::HasSubstr("Model context")));
  // A failure leaves the backend as it was.
  const cv::Mat tile(512, 512, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3));
  EXPECT_TRUE(ulmora::test::SameBits(backend.RunTile(tile), tile));
}

TEST_F(BackendContract, OutputsOfOtherKindsTypesAndShapesAreRefusedAtTheTile) {
  for (const auto& [network, text] :
       {std::pair(Network::Float16Output, "CoreML output tensor must be Float32."),
        std::pair(Network::HalfSizeOutput, "CoreML returned an unexpected output shape."),
        std::pair(Network::Rank3Output, "CoreML returned an unexpected output shape."),
        std::pair(Network::ImageOutput, "CoreML prediction did not return a multi-array output.")}) {
    CoreMLBackend backend(Package(network));
    EXPECT_EQ(TileFailure(backend, cv::Mat::zeros(512, 512, CV_32FC3)), text);
  }
}

TEST_F(BackendContract, NotANumberComesBackAsItIs) {
  CoreMLBackend backend(Package(Network::NotANumber));
  const cv::Mat result = backend.RunTile(cv::Mat(16, 16, CV_32FC3, cv::Scalar::all(0.5)));
  for (int y = 0; y < result.rows; ++y) {
    for (int i = 0; i < 3 * result.cols; ++i) ASSERT_TRUE(std::isnan(result.ptr<float>(y)[i]));
  }
}

}  // namespace
}  // namespace ulmora::core
