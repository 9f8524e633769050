#include "cli/ImageEncoder.h"

#include "cli/ByteOrder.h"
#include "cli/QuietStandardError.h"
#include "cli/TiffDirectory.h"

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string_view>

namespace ulmora::cli {
namespace {

/// The bytes of a file that tell its format and, at its end, whether it is whole.
struct FileEnds {
  std::uint64_t size = 0;
  std::array<std::uint8_t, 8> first{};
  std::array<std::uint8_t, 12> last{};

  [[nodiscard]] bool BeginsWith(std::string_view magic) const {
    return std::equal(magic.begin(), magic.end(), first.begin(),
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
  }
  [[nodiscard]] bool EndsWith(std::string_view tail) const {
    return std::equal(tail.rbegin(), tail.rend(), last.rbegin(),
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
  }
};

FileEnds ReadEnds(const std::string& path, std::uint64_t size) {
  FileEnds ends;
  ends.size = size;
  std::ifstream file(path, std::ios::binary);
  if (size < ends.last.size()) return ends;
  ReadExact(file, 0, ends.first.data(), ends.first.size(), path);
  ReadExact(file, size - ends.last.size(), ends.last.data(), ends.last.size(), path);
  return ends;
}

/// The directory stands behind the image data and is written last.
bool IsWholeTiff(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const TiffDirectory directory = ReadDirectory(file, path);
  const auto offsets = ReadFieldValues(file, directory, TiffTag::kStripOffsets, path);
  const auto counts = ReadFieldValues(file, directory, TiffTag::kStripByteCounts, path);
  if (!offsets || !counts || offsets->empty() || offsets->size() != counts->size()) return false;
  for (std::size_t i = 0; i < offsets->size(); ++i) {
    if ((*offsets)[i] > directory.fileSize || (*counts)[i] > directory.fileSize - (*offsets)[i]) return false;
  }
  return true;
}

/// Formats without compression: behind some header all the samples, or for a bitmap a bit of each in whole bytes a row.
bool HoldsAllSamples(const FileEnds& ends, const cv::Mat& image) {
  const auto rows = static_cast<std::uint64_t>(image.rows);
  const std::uint64_t rowSamples =
      static_cast<std::uint64_t>(image.cols) * static_cast<std::uint64_t>(image.channels());
  return ends.size >= rows * (ends.BeginsWith("P4") ? (rowSamples + 7) / 8 : rowSamples * image.elemSize1());
}

bool IsWhole(const std::string& path, const FileEnds& ends, const cv::Mat& image) {
  using namespace std::string_view_literals;
  // No format takes less for its header alone.
  if (ends.size < ends.last.size()) return false;
  if (ends.BeginsWith("BM")) return Read32(ends.first.data() + 2, true) == static_cast<std::uint32_t>(ends.size);
  if (ends.BeginsWith("\x89PNG"sv)) return ends.EndsWith("\0\0\0\0IEND\xAE\x42\x60\x82"sv);
  if (ends.BeginsWith("\xFF\xD8\xFF"sv)) return ends.EndsWith("\xFF\xD9"sv);
  if (ends.BeginsWith("II*\0"sv) || ends.BeginsWith("MM\0*"sv) || ends.BeginsWith("II+\0"sv)) return IsWholeTiff(path);
  // Portable anymaps in binary form, and Sun rasters, which the encoder never compresses.
  if (ends.BeginsWith("P4") || ends.BeginsWith("P5") || ends.BeginsWith("P6") || ends.BeginsWith("P7") ||
      ends.BeginsWith("\x59\xA6\x6A\x95"sv)) {
    return HoldsAllSamples(ends, image);
  }
  return true;
}

bool IsNoRegularFile(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error);
}

/// A pipe or device can be neither sought in nor looked at afterwards, so it gets the whole file in one piece.
bool EncodeToDevice(const std::string& path, const cv::Mat& image, const std::vector<int>& parameters) {
  const std::filesystem::path ending = std::filesystem::path(path).extension();
  std::vector<std::uint8_t> bytes;
  {
    const QuietStandardError quiet;
    if (!cv::imencode(ending.string(), image, bytes, parameters)) return false;
  }
  // The device may be one of the streams that were silenced.
  std::ofstream device(path, std::ios::binary);
  device.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  device.close();
  return device.good();
}

}  // namespace

bool IsWholeImageFile(const std::string& path, const cv::Mat& image) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return !error;
  const std::uint64_t size = std::filesystem::file_size(path, error);
  if (error) return false;
  try {
    return IsWhole(path, ReadEnds(path, size), image);
  } catch (const std::exception&) {
    // The reading functions throw for a file that ends before its own promises.
    return false;
  }
}

bool EncodeImage(const std::string& path, const cv::Mat& image, const std::vector<int>& parameters) {
  try {
    if (IsNoRegularFile(path)) return EncodeToDevice(path, image, parameters);
    const QuietStandardError quiet;
    return cv::imwrite(path, image, parameters) && IsWholeImageFile(path, image);
  } catch (cv::Exception& error) {
    // The library ends its texts in a line feed, which would leave an empty line in the middle of a failure message.
    while (!error.msg.empty() && error.msg.back() == '\n') error.msg.pop_back();
    throw;
  }
}

}  // namespace ulmora::cli
