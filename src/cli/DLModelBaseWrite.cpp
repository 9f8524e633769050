// Writing: the finished image becomes the file that was asked for.

#include "cli/AstroTiffWriter.h"
#include "cli/ChannelOrder.h"
#include "cli/DLModelBase.h"
#include "cli/FitsEncoding.h"
#include "cli/FitsPath.h"
#include "cli/FitsWriter.h"
#include "cli/FloatImageChannels.h"
#include "cli/ImageEncoder.h"
#include "cli/TiffDirectory.h"

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <vector>

namespace {

constexpr double kTop8Bit = 255.0;
constexpr double kTop16Bit = 65535.0;
constexpr int kTiffCompressionLzw = 5;

/// Lowers all samples above 2 to 2, which every integer format stores as its top value just the same. NaN stays.
template <typename T>
void LimitSamples(cv::Mat& image) {
  for (int y = 0; y < image.rows; ++y) {
    T* samples = image.ptr<T>(y);
    const int count = image.cols * image.channels();
    for (int i = 0; i < count; ++i) samples[i] = samples[i] > T{2} ? T{2} : samples[i];
  }
}

/// The image times `top`, rounded to the nearest integer and clipped to the range of `depth`, in a new buffer. OpenCV's
/// conversion alone would turn products of 2^31 and more, infinity included, to 0 on processors whose own conversion
/// does not saturate; so they are lowered first, by bands, which costs no second image.
cv::Mat ToIntegers(const cv::Mat& image, int depth, double top) {
  constexpr int kBandRows = 64;
  cv::Mat result(image.rows, image.cols, CV_MAKETYPE(depth, image.channels()));
  for (int y = 0; y < image.rows; y += kBandRows) {
    const cv::Range rows(y, std::min(y + kBandRows, image.rows));
    cv::Mat source = image.rowRange(rows).clone();
    if (source.depth() == CV_32F) LimitSamples<float>(source);
    if (source.depth() == CV_64F) LimitSamples<double>(source);
    cv::Mat target = result.rowRange(rows);
    source.convertTo(target, depth, top, 0.0);
  }
  return result;
}

/// The depth that an AstroTIFF header names, for an image that was written to a TIFF.
int AstroTiffBits(const cv::Mat& image) {
  if (image.depth() == CV_8U) return 8;
  if (image.depth() == CV_16U) return 16;
  throw std::invalid_argument("AstroTIFF metadata preservation requires an 8-bit or 16-bit TIFF output.");
}

}  // namespace

const ulmora::cli::FitsMetadata* DLModelBase::FitsSource() const {
  return input_is_fits_ ? &fits_metadata_ : nullptr;
}

std::string DLModelBase::GetFileExt(std::string path, int length) {
  // A path shorter than this wraps round, and substr refuses it.
  std::string ending = path.substr(path.size() - static_cast<std::size_t>(length));
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ending;
}

int DLModelBase::OutputIntegerDepth(std::string path) {
  const bool keepsDepth =
      GetFileExt(path, 4) == ".tif" || GetFileExt(path, 5) == ".tiff" || GetFileExt(path, 4) == ".png";
  if (!keepsDepth) return CV_8U;
  return input_depth_ == CV_8U ? CV_8U : CV_16U;
}

bool DLModelBase::WriteFloat(std::string path) {
  return ulmora::cli::IsFitsPath(path);
}

cv::Mat DLModelBase::PrepareOutputImage(std::string path, cv::Mat image, bool rescale) {
  if (rescale) image = RescaleImage(image, 0.5);
  if (grayscale_ && image.channels() == 3) image = ulmora::cli::RgbToGray(image);
  if (WriteFloat(path)) return image;
  const int depth = OutputIntegerDepth(path);
  image = ToIntegers(image, depth, depth == CV_16U ? kTop16Bit : kTop8Bit);
  if (!grayscale_) ulmora::cli::SwapRedAndBlue(image);
  return image;
}

cv::Mat DLModelBase::ProjectMainOutput(const std::string& path, const cv::Mat& image) {
  if (ulmora::cli::IsFitsPath(path)) return ulmora::cli::ProjectFitsMainOutput(image, FitsSource());
  cv::Mat output = PrepareOutputImage(path, image, false);
  if (output.channels() == 3) ulmora::cli::SwapRedAndBlue(output);
  output.convertTo(output, CV_64F, output.depth() == CV_16U ? 1.0 / kTop16Bit : 1.0 / kTop8Bit, 0.0);
  return output;
}

void DLModelBase::WriteImage(std::string path, cv::Mat image, ulmora::cli::FitsOutputRole role) {
  const ulmora::cli::CliDiagnostics diagnostics = Diagnostics();
  diagnostics.Info("output", "Writing " + path);
  if (ulmora::cli::IsFitsPath(path)) {
    ulmora::cli::WriteFitsImage(path, image, grayscale_, FitsSource(), role, diagnostics);
    return;
  }
  diagnostics.Info("output_conversion", "display-format export; depth=" + std::to_string(image.elemSize1() * 8) +
                                            " bits; normalized display values, not physical FITS units");
  std::vector<int> parameters;
  if (GetFileExt(path, 4) == ".tif" || GetFileExt(path, 5) == ".tiff") {
    parameters = {cv::IMWRITE_TIFF_COMPRESSION, kTiffCompressionLzw};
  }
  if (!ulmora::cli::EncodeImage(path, image, parameters)) {
    throw std::invalid_argument("Unable to write output image: " + path);
  }
  if (astro_tiff_header_.empty() || !ulmora::cli::IsTiffPath(path)) return;
  const int bits = AstroTiffBits(image);
  ulmora::cli::WriteAstroTiffHeader(path, ulmora::cli::UpdateAstroTiffBitpix(astro_tiff_header_, bits));
}
