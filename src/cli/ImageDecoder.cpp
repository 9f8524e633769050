#include "cli/ImageDecoder.h"

#include "cli/QuietStandardError.h"
#include "cli/TiffSamples.h"

#include <opencv2/imgcodecs.hpp>

#include <cstdint>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

namespace ulmora::cli {
namespace {

cv::Mat DecodePart(const std::string& path, const TiffSamples& tiff, const TiffPart& part) {
  const std::vector<std::uint8_t> bytes = LiftTiffPart(path, tiff, part);
  return bytes.empty() ? cv::Mat() : cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
}

cv::Mat DecodeInverted(const std::string& path, const TiffSamples& tiff) {
  cv::Mat image = cv::imread(path, cv::IMREAD_UNCHANGED);
  if (image.type() != CV_16UC1) return {};
  // Samples of less than 16 bits come shifted to the top; only their own bits are inverted.
  const unsigned mask = 0xFFFFU & (0xFFFFU << (16 - tiff.bits));
  cv::bitwise_xor(image, cv::Scalar(mask), image);
  return image;
}

cv::Mat DecodePlanes(const std::string& path, const TiffSamples& tiff) {
  std::vector<cv::Mat> planes;
  for (std::uint64_t plane = 0; plane < tiff.samples; ++plane) {
    TiffPart part;
    part.firstPlane = plane;
    planes.push_back(DecodePart(path, tiff, part));
    if (planes.back().empty() || planes.back().channels() != 1) return {};
  }
  if (planes.size() >= 3) std::swap(planes[0], planes[2]);
  cv::Mat image;
  cv::merge(planes, image);
  return image;
}

/// Adds up the differences of a two-channel image whose samples were stored as differences, row by row of each chunk.
template <typename T>
void AddUpDifferences(cv::Mat& image, int chunkColumns) {
  for (int y = 0; y < image.rows; ++y) {
    T* row = image.ptr<T>(y);
    for (int x = 1; x < image.cols; ++x) {
      if (x % chunkColumns == 0) continue;
      row[2 * x] = static_cast<T>(row[2 * x] + row[2 * x - 2]);
      row[2 * x + 1] = static_cast<T>(row[2 * x + 1] + row[2 * x - 1]);
    }
  }
}

/// Two interleaved samples a pixel are read as one sample of twice as many pixels.
cv::Mat DecodeTwoSamples(const std::string& path, const TiffSamples& tiff) {
  TiffPart part;
  part.widthFactor = 2;
  part.keepPredictor = false;
  part.keepOrientation = false;
  const cv::Mat flat = DecodePart(path, tiff, part);
  if (flat.empty() || flat.channels() != 1 || flat.cols % 2 != 0) return {};
  cv::Mat image = flat.reshape(2);
  if (tiff.predictor == 1) return image;
  const int chunkColumns = tiff.tileWidth != 0 ? static_cast<int>(tiff.tileWidth) : image.cols;
  switch (image.depth()) {
    case CV_8U:
    case CV_8S:
      AddUpDifferences<std::uint8_t>(image, chunkColumns);
      return image;
    case CV_16U:
    case CV_16S:
      AddUpDifferences<std::uint16_t>(image, chunkColumns);
      return image;
    default:
      return {};
  }
}

cv::Mat DecodeUnnamedColours(const std::string& path, const TiffSamples& tiff) {
  TiffPart part;
  part.samples = tiff.samples;
  part.photometric = 2;
  return DecodePart(path, tiff, part);
}

cv::Mat DecodeTiff(const std::string& path, const TiffSamples& tiff) {
  switch (HowToRead(tiff)) {
    case TiffReading::InvertedLevels:
      return DecodeInverted(path, tiff);
    case TiffReading::SeparatePlanes:
      return DecodePlanes(path, tiff);
    case TiffReading::UnnamedColours:
      return DecodeUnnamedColours(path, tiff);
    case TiffReading::GrayAndExtra:
      return tiff.separatePlanes ? DecodePlanes(path, tiff) : DecodeTwoSamples(path, tiff);
    case TiffReading::Refused:
      return {};
    case TiffReading::Plain:
      break;
  }
  cv::Mat image = cv::imread(path, cv::IMREAD_UNCHANGED);
  // A road through the library that we do not know of must not cost half the bits in silence.
  const bool reduced = tiff.bits > 8 && !image.empty() && image.elemSize1() == 1;
  return reduced ? cv::Mat() : image;
}

cv::Mat Decode(const std::string& path) {
  const std::optional<TiffSamples> tiff = InspectTiff(path);
  const QuietStandardError quiet;
  return tiff ? DecodeTiff(path, *tiff) : cv::imread(path, cv::IMREAD_UNCHANGED);
}

[[noreturn]] void RefuseForMemory(const std::string& path) {
  throw std::invalid_argument("Not enough memory to decode input image: " + path);
}

}  // namespace

cv::Mat DecodeImage(const std::string& path) {
  try {
    return Decode(path);
  } catch (const cv::Exception& error) {
    // The library checks an image's size outside its own handlers, and throws where it otherwise returns nothing.
    if (error.func == "validateInputImageSize") {
      throw std::invalid_argument("Input image is too large to decode: " + path +
                                  ". The decoder's limits are 1048576 pixels on a side and 1073741824 in all, unless "
                                  "whole numbers in OPENCV_IO_MAX_IMAGE_WIDTH, _HEIGHT or _PIXELS set others.");
    }
    if (error.code == cv::Error::StsNoMem) RefuseForMemory(path);
    return {};
  } catch (const std::bad_alloc&) {
    RefuseForMemory(path);
  } catch (const std::invalid_argument&) {
    // From the TIFF functions, for a file that ends before its own promises.
    return {};
  }
}

}  // namespace ulmora::cli
