// Reading: one file on disk becomes the normalized image of the run.

#include "cli/AstroTiffReader.h"
#include "cli/ChannelOrder.h"
#include "cli/DLModelBase.h"
#include "cli/FitsPath.h"
#include "cli/FitsReader.h"
#include "cli/FloatImageChannels.h"
#include "cli/ImageDecoder.h"
#include "cli/ImageStatistics.h"
#include "cli/TiffDirectory.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

using ulmora::cli::CliDiagnostics;

[[noreturn]] void RefuseChannels(const cv::Mat& image) {
  throw std::invalid_argument("Unsupported number of image channels: " + std::to_string(image.channels()));
}

/// The two tests of the error code answer for statuses that a file system gives together with an error.
void CheckInputPath(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::exists(path, error)) throw std::invalid_argument("Input image does not exist: " + path);
  if (error) {
    throw std::invalid_argument("Unable to check input image path: " + path + " (" + error.message() + ")");
  }
  if (!std::filesystem::is_regular_file(path, error)) {
    throw std::invalid_argument("Input path is not a regular file: " + path);
  }
  if (error) {
    throw std::invalid_argument("Unable to inspect input image path: " + path + " (" + error.message() + ")");
  }
}

/// What the first bytes say, not the name. An unreadable file is not reported here: the decoder has read it by now.
std::string DecodedFormat(const std::string& path) {
  std::array<char, 8> stored{};
  std::ifstream(path, std::ios::binary).read(stored.data(), stored.size());
  std::array<unsigned char, 8> b{};
  std::copy(stored.begin(), stored.end(), b.begin());
  const auto isVersion = [](unsigned char byte) { return byte == 0x2A || byte == 0x2B; };
  if (b[0] == 0x49 && b[1] == 0x49 && isVersion(b[2])) return "TIFF";
  if (b[0] == 0x4D && b[1] == 0x4D && isVersion(b[3])) return "TIFF";
  if (b[0] == 0x89 && b[1] == 0x50 && b[2] == 0x4E && b[3] == 0x47) return "PNG";
  if (b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF) return "JPEG";
  if (b[0] == 0x42 && b[1] == 0x4D) return "BMP";
  return "OpenCV (format unclassified)";
}

const char* StoredType(int depth) {
  switch (depth) {
    case CV_8U:
      return "uint8";
    case CV_16U:
      return "uint16";
    case CV_8S:
      return "int8";
    case CV_16S:
      return "int16";
    case CV_32S:
      return "int32";
    case CV_32F:
      return "float32";
    default:
      return "float64";
  }
}

double FixedDivisor(int depth) {
  if (depth == CV_8U) return 255.0;
  return depth == CV_16U ? 65535.0 : 1.0;
}

/// The header of a TIFF input, or an empty one: a damaged header costs only its preservation.
std::string AstroTiffHeaderOf(const std::string& path, const CliDiagnostics& diagnostics) {
  if (!ulmora::cli::IsTiffPath(path)) return {};
  try {
    return ulmora::cli::ReadAstroTiffHeader(path);
  } catch (const std::exception& error) {
    diagnostics.Warn(
        ulmora::cli::CliWarning::OutputFidelity,
        std::string("Unable to inspect AstroTIFF metadata; continuing without preservation. ") + error.what());
    return {};
  }
}

void ReportFormat(const std::string& path, const cv::Mat& image, const CliDiagnostics& diagnostics) {
  std::ostringstream text;
  text << "format=" << DecodedFormat(path) << " stored=" << StoredType(image.depth()) << " width=" << image.cols
       << " height=" << image.rows << " channels=" << image.channels();
  diagnostics.Info("input_format", text.str());
}

void ReportRanges(const cv::Mat& image, double scale, const CliDiagnostics& diagnostics) {
  // The lines are for people who did not ask to be told nothing; the pass over all samples is for the lines.
  if (diagnostics.quiet) return;
  ulmora::cli::ImageRanges ranges = ulmora::cli::MeasureRanges(image, scale);
  // The decoder delivers B, G, R; the lines are numbered in R, G, B order.
  if (image.channels() == 3) std::swap(ranges.channels[0], ranges.channels[2]);
  diagnostics.Info("input_range", ranges.overall.Describe(scale));
  for (std::size_t c = 0; c < ranges.channels.size(); ++c) {
    diagnostics.Info("channel_range", "channel=" + std::to_string(c + 1) + ' ' + ranges.channels[c].Describe(scale));
  }
}

void ReportConversion(double scale, bool linear, const CliDiagnostics& diagnostics) {
  std::ostringstream text;
  text << std::setprecision(17) << "fixed divisor K=" << scale << "; offset=0; linear=" << linear
       << "; no observed-range rescaling; "
       << (linear ? "MTF/inverse=float64; inference=float32" : "inference=float32 (no MTF)");
  diagnostics.Info("input_conversion", text.str());
}

/// Whether two planes of a three-channel image differ nowhere. By bands of rows: the planes of a whole image would cost
/// as much memory again, and most colour images are told by their first band.
bool PlanesAreEqual(const cv::Mat& image) {
  constexpr int kBandRows = 64;
  std::array<cv::Mat, 3> planes;
  for (int y = 0; y < image.rows; y += kBandRows) {
    cv::split(image.rowRange(y, std::min(y + kBandRows, image.rows)), planes.data());
    // A NaN makes the norm unequal to 0, as it should: it equals nothing.
    const bool equal =
        cv::norm(planes[0], planes[1], cv::NORM_L1) == 0 && cv::norm(planes[0], planes[2], cv::NORM_L1) == 0;
    if (!equal) return false;
  }
  return true;
}

}  // namespace

cv::Mat DLModelBase::DecodeFits(const std::string& path, bool linear) {
  ulmora::cli::FitsImage source = ulmora::cli::ReadFitsImageWithMetadata(path, linear, Diagnostics());
  fits_metadata_ = std::move(source.metadata);
  input_is_fits_ = true;
  input_depth_ = -1;
  astro_tiff_header_.clear();
  return source.image;
}

cv::Mat DLModelBase::DecodeOther(const std::string& path) {
  cv::Mat image = ulmora::cli::DecodeImage(path);
  input_is_fits_ = false;
  input_depth_ = image.empty() ? -1 : image.depth();
  astro_tiff_header_ = image.empty() ? std::string() : AstroTiffHeaderOf(path, Diagnostics());
  return image;
}

cv::Mat DLModelBase::ReadImageIn(std::string path, bool upsample, bool linear) {
  const CliDiagnostics diagnostics = Diagnostics();
  diagnostics.Info("input", "Reading " + path);
  CheckInputPath(path);
  const bool fits = ulmora::cli::IsFitsPath(path);
  cv::Mat image = fits ? DecodeFits(path, linear) : DecodeOther(path);
  if (image.empty()) {
    throw std::invalid_argument("Unable to read input image: " + path +
                                ". Check that the file is a readable TIFF/TIF, PNG, or supported FITS image.");
  }
  if (fits) {
    input_scale_ = fits_metadata_.fixedDivisor;
  } else {
    input_scale_ = FixedDivisor(image.depth());
    ReportFormat(path, image, diagnostics);
    ReportRanges(image, input_scale_, diagnostics);
    ReportConversion(input_scale_, linear, diagnostics);
  }

  grayscale_ = IsGrayscale(image);
  const double multiplier = fits ? 1.0 : InputNormalizationScale(image);
  if (image.channels() == 1) {
    image = ulmora::cli::GrayToRgb(image);
  } else if (image.channels() != 3) {
    RefuseChannels(image);
  } else if (!fits) {
    ulmora::cli::SwapRedAndBlue(image);
  }
  image.convertTo(image, linear ? CV_64FC3 : CV_32FC3, multiplier, 0.0);
  if (grayscale_) {
    cv::extractChannel(image, source_image_, 0);
  } else {
    source_image_ = image;
  }
  diagnostics.Info("input_geometry", "width=" + std::to_string(image.cols) + " height=" + std::to_string(image.rows) +
                                         " interpretation=" + (grayscale_ ? "grayscale" : "RGB"));
  if (!upsample) return image;
  diagnostics.Info("intermediate_sampling",
                   "2x grid-aligned cubic upsampling; output selects original grid samples without averaging");
  return RescaleImage(image, 2.0);
}

bool DLModelBase::IsGrayscale(cv::Mat image) {
  if (image.channels() == 1) return true;
  if (image.channels() != 3) RefuseChannels(image);
  return PlanesAreEqual(image);
}

double DLModelBase::InputNormalizationScale(cv::Mat image) {
  if (image.depth() == CV_8U) return 1.0 / 255.0;
  if (image.depth() == CV_16U) return 1.0 / 65535.0;
  throw std::invalid_argument("Unsupported image bit depth. Only 8-bit and 16-bit integer inputs are supported.");
}
