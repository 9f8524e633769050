// What the portable road says and does beyond the contract that both roads share.
#include "core/CoreMLBackend.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace ulmora::core {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

std::string Fixture(const std::string& name) {
  return LUMVANE_SOURCE_DIR "/tests/fixtures/packages/" + name + ".mlpackage";
}

TEST(PortableBackend, AnUnknownOperationIsNamed) {
  EXPECT_THAT(test::ThrownText<std::runtime_error>([] { const CoreMLBackend backend(Fixture("unknown-operation")); }),
              AllOf(StartsWith("Unable to compile CoreML model: "), HasSubstr("frobnicate")));
}

TEST(PortableBackend, AFloat16InterfaceEndsAtItsOutput) {
  CoreMLBackend backend(Fixture("float16-interface"));
  EXPECT_EQ(test::ThrownText<std::runtime_error>(
                [&] { static_cast<void>(backend.RunTile(cv::Mat::zeros(64, 64, CV_32FC3))); }),
            "CoreML output tensor must be Float32.");
}

// A compiled model that returns its input, which is of that type; `shapes` says what else is known of it.
class FlexibleInput : public testing::Test {
 protected:
  std::string Model(const std::string& type, const std::string& shapes = "") {
    const std::filesystem::path bundle = folder_.Path("flexible.mlmodelc");
    std::filesystem::create_directories(bundle);
    std::ofstream(bundle / "model.mil") << "program(1.3) { func main<ios16>(" << type << " image) " << shapes << " { "
                                        << type
                                        << " denoised = identity(x = image)[name = string(\"r\")]; } -> (denoised); }";
    return bundle.string();
  }

  // How the tensor type says the shapes: "RangeDims" or "EnumeratedShapes", and their values.
  static std::string Allowed(const std::string& kind, const std::string& values) {
    return "[FlexibleShapeInformation = tuple<t>(((\"DefaultShapes\", {{\"image\", [1, 3, 64, 64]}}), (\"" + kind +
           "\", " + values + ")))]";
  }

  static std::string FailureOf(CoreMLBackend& backend, int rows, int cols) {
    return test::ThrownText<std::runtime_error>(
        [&] { static_cast<void>(backend.RunTile(cv::Mat::zeros(rows, cols, CV_32FC3))); });
  }

  // What the first tile of the usual size says; opening says nothing of shapes.
  std::string FailureOfATile(const std::string& model) {
    CoreMLBackend backend(model);
    return FailureOf(backend, 512, 512);
  }

 private:
  test::TemporaryFolder folder_;
};

constexpr const char* kOpenPlanes = "tensor<fp32, [1, 3, ?, ?]>";

TEST_F(FlexibleInput, AFixedShapeIsTheOnlyOne) {
  EXPECT_EQ(FailureOfATile(Model("tensor<fp32, [1, 3, 64, 48]>")),
            "CoreML prediction failed: input 'image' has shape [1, 3, 512, 512], expected [1, 3, 64, 48]");
  CoreMLBackend package(Fixture("identity-fixed-512"));
  EXPECT_EQ(FailureOf(package, 64, 64),
            "CoreML prediction failed: input 'image' has shape [1, 3, 64, 64], expected [1, 3, 512, 512]");
}

TEST_F(FlexibleInput, RangesMayLeaveTheTileOut) {
  CoreMLBackend backend(
      Model(kOpenPlanes, Allowed("RangeDims", "{{\"image\", [[1, 1], [3, 3], [8, 256], [16, -1]]}}")));
  EXPECT_EQ(
      FailureOf(backend, 512, 512),
      "CoreML prediction failed: input 'image' has shape [1, 3, 512, 512], expected [1, 3, 8 to 256, 16 or more]");
  EXPECT_EQ(FailureOf(backend, 64, 15),
            "CoreML prediction failed: input 'image' has shape [1, 3, 64, 15], expected [1, 3, 8 to 256, 16 or more]");
  // A tile that was refused does not stand in the way of the next.
  EXPECT_EQ(backend.RunTile(cv::Mat::ones(256, 512, CV_32FC3)).size(), cv::Size(512, 256));
}

TEST_F(FlexibleInput, AListMayLeaveTheTileOut) {
  const std::string sets = "{{\"a\", {{\"image\", [1, 3, 64, 64]}}}, {\"b\", {{\"image\", [1, 3, 32, 96]}}}}";
  CoreMLBackend backend(Model(kOpenPlanes, Allowed("EnumeratedShapes", sets)));
  EXPECT_EQ(
      FailureOf(backend, 512, 512),
      "CoreML prediction failed: input 'image' has shape [1, 3, 512, 512], expected [1, 3, 64, 64] or [1, 3, 32, 96]");
  EXPECT_EQ(backend.RunTile(cv::Mat::ones(32, 96, CV_32FC3)).size(), cv::Size(96, 32));
}

TEST_F(FlexibleInput, OtherRanksAndNumbersOfChannels) {
  EXPECT_EQ(FailureOfATile(Model("tensor<fp32, [3, 512, 512]>")),
            "CoreML prediction failed: input 'image' has shape [1, 3, 512, 512], expected [3, 512, 512]");
  EXPECT_EQ(FailureOfATile(Model("tensor<fp32, [3, ?, ?]>")),
            "CoreML prediction failed: input 'image' has shape [1, 3, 512, 512], expected [3, ?, ?]");
  EXPECT_EQ(
      FailureOfATile(Model("tensor<fp32, [1, 1, ?, ?]>")),
      "CoreML prediction failed: input 'image' has shape [1, 3, 512, 512], expected [1, 1, 1 or more, 1 or more]");
}

TEST_F(FlexibleInput, OtherTypesOfElements) {
  EXPECT_EQ(FailureOfATile(Model("tensor<fp16, [1, 3, ?, ?]>")), "CoreML output tensor must be Float32.");
  EXPECT_EQ(FailureOfATile(Model("tensor<int32, [1, 3, ?, ?]>")),
            "CoreML prediction failed: input 'image' is of type int32, expected floats");
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

TEST(PortableBackend, ARecordedNetworkGivesItsRecordedImage) {
  // A network that treats its channels differently, with what another framework made of the same input.
  CoreMLBackend backend(Fixture("unet-ios15-float32"));
  const cv::Mat expected = RecordedImage("unet-ios15-float32", 32, 40);
  const cv::Mat result = backend.RunTile(RecordedImage("recorded-input", 32, 40));
  EXPECT_TRUE(test::Near(result, expected, 1e-4 * cv::norm(expected, cv::NORM_INF)));
  cv::Mat swapped;
  cv::cvtColor(expected, swapped, cv::COLOR_RGB2BGR);
  EXPECT_FALSE(test::Near(result, swapped, 1e-2 * cv::norm(expected, cv::NORM_INF)));
}

}  // namespace
}  // namespace ulmora::core
