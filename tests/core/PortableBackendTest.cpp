// What the portable road says and does beyond the contract that both roads share.
#include "core/CoreMLBackend.h"
#include "tests/support/Compare.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

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
