#include "cli/DLModelBase.h"
#include "core/TiledInference.h"
#include "tests/common/PlainTileLoop.h"
#include "tests/support/Compare.h"
#include "tests/support/RandomImage.h"

#include <gtest/gtest.h>

#include <iostream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace test = ulmora::test;

cv::Mat Identity(const cv::Mat& tile) {
  return tile.clone();
}

// A model as it stands once an image has been read and the layout fixed.
class TiledModel : public DLModelBase {
 public:
  TiledModel(const cv::Mat& image, int window, int stride) {
    image_ = image;
    window_size_ = window;
    stride_ = stride;
    quiet_ = true;
    SetDimensions();
  }

  void Speak(bool quiet, bool machineProgress) {
    quiet_ = quiet;
    machine_progress_ = machineProgress;
  }
  void Stretch(const cv::Mat& stretched) {
    linear_enabled_ = true;
    linear_image_ = stretched;
  }
  [[nodiscard]] const ulmora::TileGeometry& Geometry() const { return tile_geometry_; }
};

// Collects what goes to a standard stream while it lives.
class Captured {
 public:
  explicit Captured(std::ostream& stream) : stream_(stream), before_(stream.rdbuf(text_.rdbuf())) {}
  ~Captured() { stream_.rdbuf(before_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

  [[nodiscard]] std::string Text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::ostream& stream_;
  std::streambuf* before_;
};

struct Spoken {
  std::string out;
  std::string err;
};

// What a run over three tiles says; the tile function says "<tile>" on both streams in its turn.
Spoken ThreeTiles(bool quiet, bool machineProgress) {
  test::Random random;
  TiledModel model(test::RandomImage(random, 8, 24, CV_32FC3), 8, 8);
  model.Speak(quiet, machineProgress);
  const Captured out(std::cout), err(std::cerr);
  static_cast<void>(model.RunTiledInference([](const cv::Mat& tile) {
    std::cout << "<tile>";
    std::cerr << "<tile>";
    return tile.clone();
  }));
  return {out.Text(), err.Text()};
}

TEST(DLModelTiles, PeopleSeeAPercentBeforeEachTile) {
  const Spoken spoken = ThreeTiles(false, false);
  EXPECT_EQ(spoken.out, "Working: 33.3%\r<tile>Working: 66.7%\r<tile>Working: 100.0%\r<tile>Working: Done! \n\n");
  EXPECT_EQ(spoken.err, "<tile><tile><tile>");
}

TEST(DLModelTiles, QuietRunsSayNothing) {
  const Spoken spoken = ThreeTiles(true, false);
  EXPECT_EQ(spoken.out, "<tile><tile><tile>");
  EXPECT_EQ(spoken.err, "<tile><tile><tile>");
}

TEST(DLModelTiles, FrontEndsGetEventsAlsoWhenQuiet) {
  const std::string begin = R"({"schema":"quorvanthine.cli.progress.v1","event":)";
  const std::string expected =
      begin + R"("start","stage":"inference","current":0,"total":3,"percent":0.0})" + "\n" +  //
      begin + R"("progress","stage":"inference","current":1,"total":3,"percent":33.3})" + "\n<tile>" + begin +
      R"("progress","stage":"inference","current":2,"total":3,"percent":66.7})" + "\n<tile>" + begin +
      R"("progress","stage":"inference","current":3,"total":3,"percent":100.0})" + "\n<tile>" + begin +
      R"("finish","stage":"inference","current":3,"total":3,"percent":100.0,"ok":true})" + "\n";
  for (bool quiet : {false, true}) {
    const Spoken spoken = ThreeTiles(quiet, true);
    EXPECT_EQ(spoken.out, "<tile><tile><tile>");
    EXPECT_EQ(spoken.err, expected);
  }
}

TEST(DLModelTiles, ConstantTilesCountInTheReports) {
  TiledModel model(cv::Mat(8, 16, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3)), 8, 8);
  model.Speak(false, false);
  const Captured out(std::cout);
  const cv::Mat result = model.RunTiledInference([](const cv::Mat&) -> cv::Mat { throw std::logic_error("called"); });
  EXPECT_EQ(out.Text(), "Working: 50.0%\rWorking: 100.0%\rWorking: Done! \n\n");
  EXPECT_TRUE(test::SameBits(result, cv::Mat(8, 16, CV_32FC3, cv::Scalar(0.1, 0.2, 0.3))));
}

TEST(DLModelTiles, AFailingTileEndsTheRunWithoutAFinish) {
  test::Random random;
  TiledModel model(test::RandomImage(random, 8, 16, CV_32FC3), 8, 8);
  model.Speak(false, false);
  const Captured out(std::cout);
  const auto fail = [](const cv::Mat&) -> cv::Mat { throw std::runtime_error("CoreML prediction failed: x"); };
  EXPECT_EQ(test::ThrownText<std::runtime_error>([&] { static_cast<void>(model.RunTiledInference(fail)); }),
            "CoreML prediction failed: x");
  EXPECT_EQ(out.Text(), "Working: 50.0%\r");
}

TEST(DLModelTiles, IdentityReturnsTheImage) {
  test::Random random;
  for (const auto& [window, stride] :
       std::vector<std::pair<int, int>>{{64, 60}, {64, 32}, {64, 8}, {64, 64}, {512, 480}, {512, 512}}) {
    const cv::Mat image = test::RandomImage(random, window + 13, window + 40, CV_32FC3);
    const cv::Mat result = TiledModel(image, window, stride).RunTiledInference(Identity);
    EXPECT_TRUE(test::Near(result, image, 1e-6)) << window << " " << stride;
  }
}

TEST(DLModelTiles, BothFormsOfTheLoopAgreeToTheBit) {
  test::Random random;
  const auto flip = [](const cv::Mat& tile) {
    cv::Mat flipped;
    cv::flip(tile, flipped, -1);
    return flipped;
  };
  for (const auto& [window, stride] : std::vector<std::pair<int, int>>{{16, 12}, {16, 8}, {16, 4}, {9, 3}, {7, 3}}) {
    const cv::Mat image = test::RandomImage(random, random.Int(window, 50), random.Int(window, 50), CV_32FC3);
    EXPECT_TRUE(test::SameBits(TiledModel(image, window, stride).RunTiledInference(flip),
                               ulmora::core::RunTiledInference(image, window, stride, flip, {})));
  }
}

TEST(DLModelTiles, TheResultIsARegionOfTheAccumulator) {
  test::Random random;
  const cv::Mat result = TiledModel(test::RandomImage(random, 20, 30, CV_32FC3), 16, 12).RunTiledInference(Identity);
  EXPECT_EQ(result.size(), cv::Size(30, 20));
  EXPECT_FALSE(result.isContinuous());
  cv::Size whole;
  cv::Point origin;
  result.locateROI(whole, origin);
  EXPECT_EQ(whole, cv::Size(36 + 4, 24 + 4));
  EXPECT_EQ(origin, cv::Point(2, 2));
}

TEST(DLModelTiles, ResultsAreNotChecked) {
  test::Random random;
  const cv::Mat image = test::RandomImage(random, 8, 8, CV_32FC3);
  const auto nan = [](const cv::Mat& tile) { return cv::Mat(tile * std::numeric_limits<double>::quiet_NaN()); };
  EXPECT_FALSE(cv::checkRange(TiledModel(image, 8, 8).RunTiledInference(nan)));
  const auto crop = [](const cv::Mat& tile) { return tile(cv::Rect(0, 0, 4, 4)).clone(); };
  EXPECT_THROW(static_cast<void>(TiledModel(image, 8, 8).RunTiledInference(crop)), cv::Exception);
}

TEST(DLModelTiles, LinearRunsTileTheStretchedImage) {
  test::Random random;
  TiledModel model(test::RandomImage(random, 16, 16, CV_64FC3), 16, 16);
  const cv::Mat stretched = test::RandomImage(random, 16, 16, CV_32FC3);
  model.Stretch(stretched);
  EXPECT_TRUE(test::SameBits(model.RunTiledInference(Identity), stretched));
}

TEST(DLModelTiles, PadAndCropAreOpposites) {
  test::Random random;
  const cv::Mat image = test::AwkwardImage(random, 21, 34);
  TiledModel model(image, 16, 12);
  const cv::Mat padded = model.PadImage(image);
  EXPECT_TRUE(padded.isContinuous());
  EXPECT_TRUE(test::SameBits(padded, test::PlainPad(image, model.Geometry())));
  const cv::Mat cropped = model.CropImage(padded);
  EXPECT_TRUE(test::SameBits(cropped, image));
  EXPECT_EQ(cropped.datastart, padded.datastart) << "cropping copies nothing";
}

TEST(DLModelTiles, MaskScalesInPlaceAndReturnsACopy) {
  test::Random random;
  TiledModel model(test::RandomImage(random, 40, 40, CV_32FC3), 16, 12);
  cv::Mat tile = test::AwkwardImage(random, 16, 16);
  cv::Mat expected = tile.clone();
  test::PlainWeights(expected, model.Geometry(), 12, 0);
  const cv::Mat masked = model.MaskImage(tile, 12, 0);
  EXPECT_TRUE(test::SameBits(masked, expected));
  EXPECT_TRUE(test::SameBits(tile, expected));
  EXPECT_NE(masked.data, tile.data);
}

TEST(DLModelTiles, WeightsAreTheGeometrysInSinglePrecision) {
  test::Random random;
  TiledModel model(test::RandomImage(random, 100, 100, CV_32FC3), 64, 58);
  for (int i = 0; i < 1000; ++i) {
    const int x = random.Int(0, 63), y = random.Int(0, 63);
    EXPECT_EQ(model.GetWeight(58, 0, x, y), static_cast<float>(model.Geometry().Weight(58, 0, x, y)));
  }
  EXPECT_EQ(model.GetWeight(0, 0, 0, 0), 1.0f);
}

}  // namespace
