#include "cli/ImageEncoder.h"
#include "tests/cli_unit/TiffBytes.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace ulmora::cli {
namespace {

/// No file can grow past this many bytes while it lives: what a full disk looks like to an encoder.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : oldHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &old_);
    const rlimit limit{bytes, old_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    std::signal(SIGXFSZ, oldHandler_);
  }

 private:
  rlimit old_{};
  void (*oldHandler_)(int);
};

cv::Mat Noise(int type) {
  cv::Mat image(120, 90, type);
  cv::randu(image, 0, 255);
  return image;
}

class ImageEncoder : public testing::TestWithParam<const char*> {
 protected:
  [[nodiscard]] std::string Path() const { return folder_.Path(std::string("image.") + GetParam()); }
  [[nodiscard]] static cv::Mat Image() {
    const std::string ending = GetParam();
    return Noise(ending == "pgm" || ending == "pbm" ? CV_8UC1 : CV_8UC3);
  }

  test::TemporaryFolder folder_;
};

INSTANTIATE_TEST_SUITE_P(Formats, ImageEncoder, testing::Values("png", "tif", "jpg", "bmp", "ppm", "pgm", "pbm", "ras"),
                         [](const auto& format) { return std::string(format.param); });

TEST_P(ImageEncoder, WritesAWholeFile) {
  const cv::Mat image = Image();
  ASSERT_TRUE(EncodeImage(Path(), image, {}));
  EXPECT_EQ(cv::imread(Path(), cv::IMREAD_UNCHANGED).size(), image.size());
}

TEST_P(ImageEncoder, DoesNotCallACutFileWhole) {
  const cv::Mat image = Image();
  ASSERT_TRUE(EncodeImage(Path(), image, {}));
  const std::string whole = test::ReadFile(Path());
  for (const std::size_t kept : {whole.size() / 2, std::size_t{20}, std::size_t{1}, std::size_t{0}}) {
    test::WriteFile(Path(), whole.substr(0, kept));
    EXPECT_FALSE(IsWholeImageFile(Path(), image)) << kept << " of " << whole.size() << " bytes";
  }
  std::filesystem::remove(Path());
  EXPECT_FALSE(IsWholeImageFile(Path(), image));
}

TEST_P(ImageEncoder, AFullDiskIsAFailureWhateverTheEncoderSays) {
  const cv::Mat image = Image();
  ASSERT_TRUE(EncodeImage(Path(), image, {}));
  const auto size = static_cast<rlim_t>(test::ReadFile(Path()).size());
  for (const rlim_t bytes : {size - 100, size / 2, rlim_t{8}}) {
    bool written = true;
    {
      const FileSizeLimit limit(bytes);
      written = EncodeImage(Path(), image, {});
    }
    EXPECT_FALSE(written) << bytes << " of " << size << " bytes";
  }
}

TEST(ImageEncoderFailure, AMissingFolderIsAFailureWithoutForeignLines) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(EncodeImage("/no/such/folder/a.png", Noise(CV_8UC3), {}));
  EXPECT_FALSE(EncodeImage("/no/such/folder/a.tif", Noise(CV_8UC3), {}));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(ImageEncoderFailure, AnUnknownEndingPassesOnTheLibrarysTextWithoutItsLineFeed) {
  for (const char* path : {"a.nothing", "a"}) {
    const std::string text =
        test::ThrownText<cv::Exception>([&] { static_cast<void>(EncodeImage(path, Noise(CV_8UC3), {})); });
    EXPECT_NE(text.find("could not find a writer for the specified extension"), std::string::npos) << text;
    EXPECT_NE(text.back(), '\n');
  }
}

TEST(ImageEncoderFailure, AFullDeviceIsAFailureAndAnotherGetsTheWholeFile) {
  if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no device here is always full";
  test::TemporaryFolder folder;
  for (const std::string ending : {"png", "tif", "jpg", "bmp", "ppm"}) {
    std::filesystem::create_symlink("/dev/full", folder.Path("full." + ending));
    EXPECT_FALSE(EncodeImage(folder.Path("full." + ending), Noise(CV_8UC3), {})) << ending;
    std::filesystem::create_symlink("/dev/null", folder.Path("null." + ending));
    EXPECT_TRUE(EncodeImage(folder.Path("null." + ending), Noise(CV_8UC3), {})) << ending;
  }
}

TEST(ImageEncoderFailure, APipeGetsTheWholeFile) {
  test::TemporaryFolder folder;
  const cv::Mat image = Noise(CV_8UC3);
  ASSERT_EQ(mkfifo(folder.Path("pipe.png").c_str(), 0600), 0);
  std::string received;
  std::thread reader([&] { received = test::ReadFile(folder.Path("pipe.png")); });
  EXPECT_TRUE(EncodeImage(folder.Path("pipe.png"), image, {}));
  reader.join();
  EXPECT_TRUE(test::SameBits(
      cv::imdecode(std::vector<std::uint8_t>(received.begin(), received.end()), cv::IMREAD_UNCHANGED), image));
}

TEST(ImageEncoderFailure, WhatIsNoRegularFileIsNotJudged) {
  EXPECT_TRUE(IsWholeImageFile("/dev/null", Noise(CV_8UC3)));
}

}  // namespace
}  // namespace ulmora::cli
