#include "core/CoreMLBackend.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace ulmora::core {
namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

std::string Fixture(const std::string& name) {
  return LUMVANE_SOURCE_DIR "/tests/fixtures/packages/" + name + ".mlpackage";
}

std::string OpeningFailure(const std::string& path) {
  return test::ThrownText<std::runtime_error>([&] { const CoreMLBackend backend(path); });
}

std::string TileFailure(CoreMLBackend& backend, const cv::Mat& tile) {
  return test::ThrownText<std::runtime_error>([&] { static_cast<void>(backend.RunTile(tile)); });
}

std::string Context(const std::string& path, const std::string& kind) {
  return "\nModel context: backend=CoreML; expected=.mlpackage or .mlmodelc directory bundle; source=backend caller; "
         "resolved path='" +
         path + "'; path kind=" + kind;
}

constexpr const char* kDirectory = "directory (CoreML .mlpackage/.mlmodelc models are directory bundles)";

TEST(CoreMLBackendOpening, AnAbsentPackageIsNamedWithItsContext) {
  const test::TemporaryFolder folder;
  const std::string path = folder.Path("absent.mlpackage");
  EXPECT_EQ(OpeningFailure(path), "CoreML model package not found: " + path + Context(path, "missing"));
  EXPECT_EQ(OpeningFailure(""), "CoreML model package not found: " + Context("", "missing"));
}

TEST(CoreMLBackendOpening, AnythingElseThatIsNoPackageCannotBeCompiled) {
  const test::TemporaryFolder folder;
  const std::string directory = folder.Path("empty.mlpackage");
  fs::create_directory(directory);
  EXPECT_THAT(OpeningFailure(directory), StartsWith("Unable to compile CoreML model: "));
  EXPECT_THAT(OpeningFailure(directory), EndsWith(Context(directory, kDirectory)));
  const std::string file = folder.Path("weights.mlpackage");
  std::ofstream(file) << "no package";
  EXPECT_THAT(OpeningFailure(file), StartsWith("Unable to compile CoreML model: "));
  EXPECT_THAT(OpeningFailure(file), EndsWith(Context(file, "regular file")));
}

TEST(CoreMLBackendOpening, ACompiledModelSkipsCompilationByItsExactEnding) {
  const test::TemporaryFolder folder;
  for (const char* name : {"empty.mlmodelc", "empty.mlmodelc/"}) {
    fs::create_directories(folder.Path(name));
    EXPECT_THAT(OpeningFailure(folder.Path(name)), StartsWith("Unable to load CoreML model: ")) << name;
  }
  for (const char* name : {"empty.MLMODELC", "empty.mlmodelc.old", "mlmodelc"}) {
    fs::create_directories(folder.Path(name));
    EXPECT_THAT(OpeningFailure(folder.Path(name)), StartsWith("Unable to compile CoreML model: ")) << name;
  }
}

TEST(CoreMLBackendOpening, AnUnknownOperationCannotBeCompiled) {
  const std::string path = Fixture("unknown-operation");
  EXPECT_THAT(OpeningFailure(path), StartsWith("Unable to compile CoreML model: "));
  EXPECT_THAT(OpeningFailure(path), HasSubstr("frobnicate"));
  EXPECT_THAT(OpeningFailure(path), EndsWith(Context(path, kDirectory)));
}

TEST(CoreMLBackendOpening, MissingConstantsCannotBeLoaded) {
  const test::TemporaryFolder folder;
  const std::string path = folder.Path("cut.mlpackage");
  fs::copy(Fixture("unet-ios15-float16"), path, fs::copy_options::recursive);
  fs::permissions(path, fs::perms::owner_all);
  fs::resize_file(path + "/Data/com.apple.CoreML/weights/weight.bin", 64);
  EXPECT_THAT(OpeningFailure(path), StartsWith("Unable to load CoreML model: "));
  EXPECT_THAT(OpeningFailure(path), EndsWith(Context(path, kDirectory)));
}

TEST(CoreMLBackendOpening, TwoOutputsAreRefusedBeforeAnyTile) {
  const std::string path = Fixture("two-outputs");
  EXPECT_EQ(OpeningFailure(path),
            "CoreML model must expose exactly one input and one output." + Context(path, kDirectory));
}

TEST(CoreMLBackendTile, OtherTilesAreRefusedInOrder) {
  CoreMLBackend backend(Fixture("gain-half"));
  EXPECT_EQ(TileFailure(backend, cv::Mat()), "CoreML input image is empty.");
  EXPECT_EQ(TileFailure(backend, cv::Mat::zeros(16, 16, CV_32FC1)), "CoreML input image must be CV_32FC3.");
  EXPECT_EQ(TileFailure(backend, cv::Mat::zeros(16, 16, CV_64FC3)), "CoreML input image must be CV_32FC3.");
  const cv::Mat sheet = cv::Mat::zeros(16, 20, CV_32FC3);
  EXPECT_EQ(TileFailure(backend, sheet(cv::Rect(0, 0, 16, 16))), "CoreML input image must be continuous.");
  const cv::Mat integers = cv::Mat::zeros(16, 20, CV_8UC3);
  EXPECT_EQ(TileFailure(backend, integers(cv::Rect(0, 0, 16, 16))), "CoreML input image must be CV_32FC3.");
}

TEST(CoreMLBackendTile, IdentityReturnsEverySampleInItsPlace) {
  test::Random random;
  for (const char* name : {"identity", "identity-fixed-512"}) {
    CoreMLBackend backend(Fixture(name));
    const cv::Mat tile = test::RandomImage(random, 512, 512, CV_32FC3, -2.0, 3.0);
    const cv::Mat before = tile.clone();
    const cv::Mat result = backend.RunTile(tile);
    EXPECT_TRUE(test::SameBits(result, before)) << name;
    EXPECT_TRUE(test::SameBits(tile, before)) << name;
    EXPECT_NE(result.data, tile.data);
    EXPECT_TRUE(result.isContinuous());
  }
}

// A recorded [1, 3, rows, cols] tensor, moved into an image sample by sample.
cv::Mat RecordedImage(const std::string& name, int rows, int cols) {
  std::ifstream file(LUMVANE_SOURCE_DIR "/tests/fixtures/packages/" + name + ".f32", std::ios::binary);
  cv::Mat image(rows, cols, CV_32FC3);
  for (int c = 0; c < 3; ++c) {
    for (int y = 0; y < rows; ++y) {
      for (int x = 0; x < cols; ++x) {
        EXPECT_TRUE(file.read(reinterpret_cast<char*>(&image.at<cv::Vec3f>(y, x)[c]), sizeof(float)));
      }
    }
  }
  return image;
}

TEST(CoreMLBackendTile, ChannelsAreThePlanesInTheirOrder) {
  // A network that treats its channels differently, with what another framework made of the same input.
  CoreMLBackend backend(Fixture("unet-ios15-float32"));
  const cv::Mat expected = RecordedImage("unet-ios15-float32", 32, 40);
  const cv::Mat result = backend.RunTile(RecordedImage("recorded-input", 32, 40));
  EXPECT_TRUE(test::Near(result, expected, 1e-4 * cv::norm(expected, cv::NORM_INF)));
  cv::Mat swapped;
  cv::cvtColor(expected, swapped, cv::COLOR_RGB2BGR);
  EXPECT_FALSE(test::Near(result, swapped, 1e-2 * cv::norm(expected, cv::NORM_INF)));
}

TEST(CoreMLBackendTile, ResultsStayWhenTheNextTileRuns) {
  test::Random random;
  CoreMLBackend backend(Fixture("gain-half"));
  const cv::Mat first = test::RandomImage(random, 64, 64, CV_32FC3);
  const cv::Mat second = test::RandomImage(random, 64, 64, CV_32FC3);
  const cv::Mat firstResult = backend.RunTile(first), secondResult = backend.RunTile(second);
  EXPECT_TRUE(test::SameBits(firstResult, cv::Mat(first * 0.5)));
  EXPECT_TRUE(test::SameBits(secondResult, cv::Mat(second * 0.5)));
}

TEST(CoreMLBackendTile, TheSizeIsTheTiles) {
  test::Random random;
  CoreMLBackend backend(Fixture("gain-half"));
  for (const cv::Size size : {cv::Size(64, 64), cv::Size(48, 16), cv::Size(17, 31), cv::Size(64, 64)}) {
    const cv::Mat tile = test::RandomImage(random, size.height, size.width, CV_32FC3);
    EXPECT_TRUE(test::SameBits(backend.RunTile(tile), cv::Mat(tile * 0.5))) << size;
  }
}

TEST(CoreMLBackendTile, ASizeThatTheModelDoesNotTakeFailsAtTheTile) {
  CoreMLBackend backend(Fixture("identity-fixed-512"));
  EXPECT_THAT(TileFailure(backend, cv::Mat::zeros(256, 256, CV_32FC3)), StartsWith("CoreML prediction failed: "));
  // A failure leaves the backend as it was.
  const cv::Mat tile(512, 512, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3));
  EXPECT_TRUE(test::SameBits(backend.RunTile(tile), tile));
}

TEST(CoreMLBackendTile, OutputsOfOtherTypesAreRefused) {
  for (const char* name : {"float16-output", "float16-interface"}) {
    CoreMLBackend backend(Fixture(name));
    EXPECT_EQ(TileFailure(backend, cv::Mat::zeros(64, 64, CV_32FC3)), "CoreML output tensor must be Float32.") << name;
  }
}

TEST(CoreMLBackendTile, OutputsOfOtherShapesAreRefused) {
  for (const char* name : {"half-size-output", "rank-3-output"}) {
    CoreMLBackend backend(Fixture(name));
    EXPECT_EQ(TileFailure(backend, cv::Mat::zeros(512, 512, CV_32FC3)), "CoreML returned an unexpected output shape.")
        << name;
  }
}

TEST(CoreMLBackendTile, NotANumberComesBackAsItIs) {
  CoreMLBackend backend(Fixture("nan-output"));
  const cv::Mat result = backend.RunTile(cv::Mat(16, 16, CV_32FC3, cv::Scalar::all(0.5)));
  for (int y = 0; y < result.rows; ++y) {
    for (int i = 0; i < 3 * result.cols; ++i) ASSERT_TRUE(std::isnan(result.ptr<float>(y)[i]));
  }
}

}  // namespace
}  // namespace ulmora::core
