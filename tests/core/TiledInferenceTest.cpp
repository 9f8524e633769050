#include "core/TiledInference.h"
#include "tests/common/PlainTileLoop.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ulmora::core {
namespace {

cv::Mat Identity(const cv::Mat& tile) {
  return tile.clone();
}

cv::Mat MustNotRun(const cv::Mat&) {
  ADD_FAILURE() << "the tile function was called";
  return {};
}

std::string Refusal(const cv::Mat& image, int window, int stride) {
  return test::ThrownText<std::invalid_argument>(
      [&] { static_cast<void>(RunTiledInference(image, window, stride, MustNotRun, {})); });
}

TEST(TiledInference, IdentityReturnsTheImage) {
  test::Random random;
  for (const auto& [window, stride] : std::vector<std::pair<int, int>>{
           {64, 60}, {64, 32}, {64, 16}, {64, 64}, {64, 2}, {512, 480}, {512, 512}, {512, 256}, {10, 8}}) {
    const cv::Mat image = test::RandomImage(random, window + 37, window + 11, CV_32FC3);
    const cv::Mat result = RunTiledInference(image, window, stride, Identity, {});
    EXPECT_TRUE(test::Near(result, image, 1e-6)) << window << " " << stride;
  }
}

TEST(TiledInference, HasTheBitsOfThePlainForm) {
  test::Random random;
  const auto negate = [](const cv::Mat& tile) { return cv::Mat(-tile); };
  for (const auto& [window, stride] : std::vector<std::pair<int, int>>{{16, 12}, {16, 8}, {16, 4}, {9, 3}, {7, 3}}) {
    const cv::Mat image = test::RandomImage(random, random.Int(window, 50), random.Int(window, 50), CV_32FC3);
    const TileGeometry g = TileGeometry::ForImage(image.cols, image.rows, window, stride);
    const cv::Mat plain = test::PlainBlend(test::PlainPad(image, g), g, negate);
    EXPECT_TRUE(test::SameBits(RunTiledInference(image, window, stride, negate, {}),
                               plain(cv::Rect(g.halfOverlap, g.halfOverlap, image.cols, image.rows))));
  }
}

TEST(TiledInference, TheResultStandsAlone) {
  test::Random random;
  const cv::Mat sheet = test::RandomImage(random, 40, 40, CV_32FC3);
  const cv::Mat before = sheet.clone();
  const cv::Mat result = RunTiledInference(sheet(cv::Rect(3, 5, 30, 20)), 16, 12, Identity, {});
  EXPECT_TRUE(result.isContinuous());
  EXPECT_EQ(result.u->refcount, 1);
  EXPECT_TRUE(test::Near(result, sheet(cv::Rect(3, 5, 30, 20)), 1e-6));
  EXPECT_TRUE(test::SameBits(sheet, before));
}

TEST(TiledInference, AConstantImageNeedsNoInference) {
  const cv::Mat image(30, 50, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3));
  std::vector<std::pair<int, int>> reports;
  const auto report = [&](int done, int total) {
    reports.emplace_back(done, total);
    return true;
  };
  EXPECT_TRUE(test::Near(RunTiledInference(image, 16, 12, MustNotRun, report), image, 1e-6));
  ASSERT_EQ(reports.size(), 16u);
  for (int done = 0; done <= 15; ++done) EXPECT_EQ(reports[static_cast<std::size_t>(done)], std::pair(done, 15));
}

TEST(TiledInference, WithoutOverlapSamplesPassUntouched) {
  test::Random random;
  const cv::Mat image = test::RandomImage(random, 1024, 512, CV_32FC3);
  int calls = 0;
  const cv::Mat result =
      RunTiledInference(image, 512, 512, [&](const cv::Mat& tile) { return ++calls, tile.clone(); }, {});
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(test::SameBits(result, image));
}

TEST(TiledInference, SlightlyMoreThanTheWindowTakesFourTiles) {
  test::Random random;
  for (int side : {512, 513}) {
    int total = 0;
    static_cast<void>(RunTiledInference(test::RandomImage(random, side, side, CV_32FC3), 512, 480, Identity,
                                        [&](int, int tiles) { return total = tiles, true; }));
    EXPECT_EQ(total, 4) << side;
  }
}

TEST(TiledInference, NotANumberGoesToTheTileFunction) {
  cv::Mat image = cv::Mat::zeros(16, 16, CV_32FC3);
  image.at<cv::Vec3f>(0, 0)[0] = std::numeric_limits<float>::quiet_NaN();
  int calls = 0;
  const auto repair = [&](const cv::Mat& tile) {
    ++calls;
    return cv::Mat(cv::Mat::zeros(tile.size(), tile.type()));
  };
  EXPECT_EQ(cv::norm(RunTiledInference(image, 16, 16, repair, {}), cv::NORM_INF), 0.0);
  EXPECT_EQ(calls, 1);
}

TEST(TiledInference, RefusesOtherPixels) {
  const std::string text = "Tiled inference requires float32 RGB pixels.";
  EXPECT_EQ(Refusal(cv::Mat(), 16, 12), text);
  EXPECT_EQ(Refusal(cv::Mat::zeros(32, 32, CV_32FC1), 16, 12), text);
  EXPECT_EQ(Refusal(cv::Mat::zeros(32, 32, CV_64FC3), 16, 12), text);
  EXPECT_EQ(Refusal(cv::Mat::zeros(32, 32, CV_16UC3), 16, 12), text);
  EXPECT_EQ(Refusal(cv::Mat(), 0, 0), text) << "pixels are looked at before the window";
}

TEST(TiledInference, RefusesBadWindowsAndStrides) {
  const cv::Mat image = cv::Mat::zeros(32, 32, CV_32FC3);
  for (const auto& [window, stride] :
       std::vector<std::pair<int, int>>{{0, 12}, {-16, -16}, {16, 0}, {16, -2}, {16, 18}, {16, 11}, {64, 63}}) {
    EXPECT_EQ(Refusal(image, window, stride), "Invalid inference window or stride.") << window << " " << stride;
  }
}

TEST(TiledInference, RefusesSmallImages) {
  const std::string text = "Image size is too small for the window!";
  EXPECT_EQ(Refusal(cv::Mat::zeros(15, 100, CV_32FC3), 16, 12), text);
  EXPECT_EQ(Refusal(cv::Mat::zeros(100, 15, CV_32FC3), 16, 12), text);
}

// A header with any size, whose pixels nobody touches: the checks look at the size alone.
cv::Mat Unbacked(int rows, int cols) {
  static cv::Vec3f pixel;
  cv::Mat header(1, 1, CV_32FC3, &pixel);
  header.rows = rows;
  header.cols = cols;
  return header;
}

TEST(TiledInference, RefusesWhatIntCannotCount) {
  constexpr int kMax = std::numeric_limits<int>::max();
  const std::string text = "Image dimensions exceed supported tiling limits.";
  EXPECT_EQ(Refusal(Unbacked(16, kMax - 31), 16, 16), text);
  EXPECT_EQ(Refusal(Unbacked(kMax - 31, 16), 16, 16), text);
  // 46341 squared is the first square above the largest int; 46339 columns and rows of one pixel count as that.
  EXPECT_EQ(Refusal(Unbacked(46339, 46339), 1, 1), text);
  EXPECT_EQ(Refusal(Unbacked(kMax, kMax), kMax, kMax), text);
}

TEST(TiledInference, TheLargestCountableImagePassesTheChecks) {
  // 46340 squared still fits; the run then ends at the first report, before anything is padded.
  const auto stop = [](int, int) { return false; };
  EXPECT_EQ(test::ThrownText<Cancelled>(
                [&] { static_cast<void>(RunTiledInference(Unbacked(46338, 46338), 1, 1, MustNotRun, stop)); }),
            "Processing cancelled.");
}

std::string TileRefusal(const std::function<cv::Mat(const cv::Mat&)>& infer) {
  cv::Mat image = cv::Mat::zeros(20, 20, CV_32FC3);
  cv::randu(image, 0.0, 1.0);
  return test::ThrownText<std::runtime_error>([&] { static_cast<void>(RunTiledInference(image, 16, 12, infer, {})); });
}

TEST(TiledInference, RefusesUnfitResults) {
  const std::string text = "Inference returned an invalid tile shape or type.";
  EXPECT_EQ(TileRefusal([](const cv::Mat&) { return cv::Mat(); }), text);
  EXPECT_EQ(TileRefusal([](const cv::Mat&) { return cv::Mat(cv::Mat::zeros(16, 15, CV_32FC3)); }), text);
  EXPECT_EQ(TileRefusal([](const cv::Mat&) { return cv::Mat(cv::Mat::zeros(17, 16, CV_32FC3)); }), text);
  EXPECT_EQ(TileRefusal([](const cv::Mat&) { return cv::Mat(cv::Mat::zeros(16, 16, CV_32FC1)); }), text);
  EXPECT_EQ(TileRefusal([](const cv::Mat&) { return cv::Mat(cv::Mat::zeros(16, 16, CV_64FC3)); }), text);
}

TEST(TiledInference, RefusesNonFiniteResults) {
  using Limits = std::numeric_limits<float>;
  for (float value : {Limits::quiet_NaN(), Limits::infinity(), -Limits::infinity()}) {
    EXPECT_EQ(TileRefusal([&](const cv::Mat& tile) {
                cv::Mat out = tile.clone();
                out.at<cv::Vec3f>(15, 15)[2] = value;
                return out;
              }),
              "Inference returned non-finite samples.");
  }
}

TEST(TiledInference, ShapeIsCheckedBeforeTheSamples) {
  EXPECT_EQ(TileRefusal([](const cv::Mat&) {
              return cv::Mat(8, 8, CV_32FC3, cv::Scalar::all(std::numeric_limits<double>::quiet_NaN()));
            }),
            "Inference returned an invalid tile shape or type.");
}

TEST(TiledInference, CancellingAtZeroRunsNothing) {
  test::Random random;
  const cv::Mat image = test::RandomImage(random, 40, 40, CV_32FC3);
  std::vector<int> reports;
  const auto refuse = [&](int done, int) {
    reports.push_back(done);
    return false;
  };
  EXPECT_EQ(
      test::ThrownText<Cancelled>([&] { static_cast<void>(RunTiledInference(image, 16, 12, MustNotRun, refuse)); }),
      "Processing cancelled.");
  EXPECT_EQ(reports, std::vector<int>{0});
}

TEST(TiledInference, CancellingStopsAtOnce) {
  test::Random random;
  const cv::Mat image = test::RandomImage(random, 40, 40, CV_32FC3);
  int calls = 0;
  const auto count = [&](const cv::Mat& tile) { return ++calls, tile.clone(); };
  const auto untilThree = [](int done, int) { return done < 3; };
  EXPECT_THROW(static_cast<void>(RunTiledInference(image, 16, 12, count, untilThree)), Cancelled);
  EXPECT_EQ(calls, 3);
}

TEST(TiledInference, FailuresOfTheTileFunctionPassThrough) {
  EXPECT_EQ(TileRefusal([](const cv::Mat&) -> cv::Mat { throw std::runtime_error("CoreML prediction failed: x"); }),
            "CoreML prediction failed: x");
}

}  // namespace
}  // namespace ulmora::core
