#include "cli/FitsWriter.h"

#include "cli/FitsEncoding.h"
#include "cli/FitsFile.h"
#include "cli/FitsHeaderCards.h"
#include "cli/FitsSamples.h"
#include "cli/FloatImageChannels.h"
#include "cli/InputRange.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace ulmora::cli {
namespace {

const char* RoleName(FitsOutputRole role) {
  switch (role) {
    case FitsOutputRole::main:
      return "main";
    case FitsOutputRole::difference:
      return "difference";
    default:
      return "unscreen";
  }
}

/// All that one write knows: what goes where, and how it is encoded.
struct FitsOutput {
  const std::string& path;
  const FitsMetadata* metadata;
  FitsOutputRole role;
  const CliDiagnostics& diagnostics;
  int columns = 0;
  int rows = 0;
  int channels = 0;
  std::vector<double> samples{};  ///< in file order: normalized, then physical, then storage values
  std::uint64_t clippedCount = 0;
  FitsFile file{};
  int status = 0;

  [[nodiscard]] bool Linear() const { return metadata != nullptr && metadata->linear; }
  [[nodiscard]] int Bitpix() const { return metadata != nullptr ? metadata->bitpix : FLOAT_IMG; }
  [[nodiscard]] bool IntegerStorage() const { return Bitpix() > 0; }
  /// A fraction of floating-point samples has no unit, so it does not take the source's scaling.
  [[nodiscard]] bool FloatUnscreen() const {
    return metadata != nullptr && role == FitsOutputRole::unscreen && metadata->bitpix < 0;
  }
  [[nodiscard]] bool PlaneFirst() const {
    return metadata != nullptr && metadata->channelLayout == FitsChannelLayout::PlaneFirst;
  }
  [[nodiscard]] double Divisor() const { return metadata != nullptr ? metadata->fixedDivisor : 1.0; }
  [[nodiscard]] double Bscale() const { return metadata != nullptr && !FloatUnscreen() ? metadata->bscale : 1.0; }
  [[nodiscard]] double Bzero() const { return metadata != nullptr && !FloatUnscreen() ? metadata->bzero : 0.0; }

  void Check(const char* stage) const { CheckFits(status, stage, path); }
};

/// The image with as many channels as the output has, in floating point.
cv::Mat OutputChannels(cv::Mat image, bool grayscale, const FitsMetadata* metadata) {
  if (grayscale && image.channels() == 3) image = RgbToGray(image);
  const bool cube = metadata != nullptr && metadata->channelLayout != FitsChannelLayout::Mono;
  if (cube && image.channels() == 1) image = GrayToRgb(image);
  if (image.channels() != 1 && image.channels() != 3) {
    throw std::invalid_argument("Unsupported number of FITS output channels: " + std::to_string(image.channels()));
  }
  // Single precision widens when the samples are put in order; the detour would cost a second image.
  if (image.depth() != CV_64F && image.depth() != CV_32F) image.convertTo(image, CV_64F, 1.0, 0.0);
  return image;
}

void RestoreLinearSamples(FitsOutput& output) {
  const FitsMetadata& metadata = *output.metadata;
  if (output.columns != metadata.width || output.rows != metadata.height ||
      output.samples.size() != metadata.physicalSamples.size()) {
    throw std::invalid_argument("Linear FITS output geometry differs from the source.");
  }
  if (metadata.shadowThresholds.empty()) {
    throw std::invalid_argument("Linear FITS output requires the actual MTF shadow thresholds.");
  }
  const std::size_t plane = static_cast<std::size_t>(output.columns) * static_cast<std::size_t>(output.rows);
  for (std::size_t i = 0; i < output.samples.size(); ++i) {
    std::size_t channel = 0;
    if (output.channels == 3) channel = output.PlaneFirst() ? i % 3 : i / plane;
    output.samples[i] = LinearPhysicalSample(output.samples[i], metadata, output.role, static_cast<int>(channel), i);
  }
}

void ReportConversion(const FitsOutput& output) {
  if (output.FloatUnscreen()) {
    output.diagnostics.Warn(CliWarning::OutputFidelity,
                            "FITS unscreen output is dimensionless [0,1], with identity BSCALE/BZERO and BUNIT=1. "
                            "Reconstruct using starless + unscreen*(fixed format white - starless); see FITS HISTORY.");
  }
  std::ostringstream text;
  text << std::setprecision(17) << "format=FITS BITPIX=" << output.Bitpix() << " role=" << RoleName(output.role)
       << " fixed_white=" << output.Divisor() << " BSCALE=" << output.Bscale() << " BZERO=" << output.Bzero()
       << " encoding_input=float64; "
       << (output.FloatUnscreen() ? "dimensionless fraction"
                                  : "source physical units; source storage quantization applies");
  output.diagnostics.Info("output_conversion", text.str());
}

/// CFITSIO refuses to create a file that exists.
void RemoveExistingOutput(const std::string& path) {
  std::error_code error;
  const bool exists = std::filesystem::exists(path, error);
  if (error) {
    throw std::invalid_argument("Unable to inspect FITS output path " + path + ": " + error.message());
  }
  if (!exists) return;
  const bool removed = std::filesystem::remove(path, error);
  if (removed && !error) return;
  throw std::invalid_argument("Unable to replace FITS output path " + path + (error ? ": " + error.message() : ""));
}

void CreateImage(FitsOutput& output) {
  RemoveExistingOutput(output.path);
  // The library would write below the folder that this names and nowhere else; the output path alone decides here.
  unsetenv("HERA_DATA_DIRECTORY");
  fits_create_diskfile(output.file.Out(), FitsDiskName(output.path).c_str(), &output.status);
  output.Check("Creating");
  std::array<long, 3> axes = {output.columns, output.rows, 3};
  if (output.channels == 3 && output.PlaneFirst()) axes = {3, output.columns, output.rows};
  fits_create_img(output.file.Get(), output.Bitpix(), output.channels == 1 ? 2 : 3, axes.data(), &output.status);
  output.Check("Creating image");
}

void WriteScaling(FitsOutput& output) {
  if (output.metadata == nullptr) return;
  fitsfile* file = output.file.Get();
  double bscale = output.Bscale();
  double bzero = output.Bzero();
  if (output.metadata->hasBscale) fits_update_key(file, TDOUBLE, "BSCALE", &bscale, nullptr, &output.status);
  if (output.metadata->hasBzero) fits_update_key(file, TDOUBLE, "BZERO", &bzero, nullptr, &output.status);
  output.Check("Writing source scaling");
  fits_set_bscale(file, bscale, bzero, &output.status);
  output.Check("Applying source scaling");
}

/// Replaces physical values by the storage values that represent them best. CFITSIO must not scale those again.
void QuantizeSamples(FitsOutput& output) {
  RequireInvertibleScaling(*output.metadata);
  InputRange range;
  for (double& sample : output.samples) {
    range.Add(sample, output.Divisor());
    sample = IntegerStorageSample(sample, *output.metadata, output.clippedCount);
  }
  if (output.clippedCount != 0) {
    output.diagnostics.Warn(CliWarning::DataLoss, "clipped " + std::to_string(output.clippedCount) +
                                                      " integer FITS output samples to the source storage limits; " +
                                                      range.Describe(output.Divisor()));
  }
  fits_set_bscale(output.file.Get(), 1.0, 0.0, &output.status);
  output.Check("Selecting explicitly quantized storage samples");
}

void WritePixels(FitsOutput& output) {
  fitsfile* file = output.file.Get();
  if (output.IntegerStorage()) QuantizeSamples(output);
  std::array<long, 3> first = {1, 1, 1};
  fits_write_pix(file, TDOUBLE, first.data(), static_cast<LONGLONG>(output.samples.size()), output.samples.data(),
                 &output.status);
  output.Check("Writing pixels");
  if (!output.IntegerStorage()) return;
  fits_set_bscale(file, output.Bscale(), output.Bzero(), &output.status);
  output.Check("Restoring physical scaling for output inspection");
  output.diagnostics.Info("output_quantization",
                          "Integer FITS samples rounded to nearest storage value; source BSCALE/BZERO preserved.");
}

/// The extrema of what the file now holds, for a source that had such cards. The samples are not needed any more, so
/// their memory takes the pixels that are read back.
void WriteExtrema(FitsOutput& output) {
  if (output.metadata == nullptr || (!output.metadata->hasDatamin && !output.metadata->hasDatamax)) return;
  fitsfile* file = output.file.Get();
  std::array<long, 3> first = {1, 1, 1};
  int anyNull = 0;
  fits_read_pix(file, TDOUBLE, first.data(), static_cast<LONGLONG>(output.samples.size()), nullptr,
                output.samples.data(), &anyNull, &output.status);
  output.Check("Reading quantized output extrema");
  const auto [lowest, highest] = std::minmax_element(output.samples.begin(), output.samples.end());
  double datamin = *lowest;
  double datamax = *highest;
  if (output.metadata->hasDatamin) fits_update_key(file, TDOUBLE, "DATAMIN", &datamin, nullptr, &output.status);
  if (output.metadata->hasDatamax) fits_update_key(file, TDOUBLE, "DATAMAX", &datamax, nullptr, &output.status);
  output.Check("Writing output extrema");
}

void WriteIntegerHistory(FitsOutput& output) {
  if (!output.IntegerStorage()) return;
  fits_write_history(output.file.Get(), "Integer FITS: nearest storage-value rounding; source BSCALE/BZERO preserved.",
                     &output.status);
  if (output.clippedCount != 0) {
    const std::string text = "Integer FITS output storage-clipped samples=" + std::to_string(output.clippedCount);
    fits_write_history(output.file.Get(), text.c_str(), &output.status);
  }
  output.Check("Writing integer encoding history");
}

const char* RoleHistory(FitsOutputRole role) {
  switch (role) {
    case FitsOutputRole::main:
      return "Main image restored to source physical units.";
    case FitsOutputRole::difference:
      return "Difference stars: source units, no additive offset.";
    default:
      return "Unscreen fraction: effective source=starless+fraction*(fixed format white-starless).";
  }
}

void WriteLinearHistory(FitsOutput& output) {
  if (!output.Linear()) return;
  const auto write = [&](const std::string& text) {
    fits_write_history(output.file.Get(), text.c_str(), &output.status);
  };
  std::ostringstream text;
  text << std::setprecision(17) << "Linear FITS: fixed divisor=" << output.Divisor()
       << " upper-clipped samples=" << output.metadata->upperClippedSamples << "; no observed-range rescaling.";
  write(text.str());
  for (std::size_t c = 0; c < output.metadata->shadowThresholds.size(); ++c) {
    std::ostringstream line;
    line << std::setprecision(17) << "Linear FITS shadows channel " << c + 1 << ": "
         << output.metadata->shadowThresholds[c];
    write(line.str());
  }
  write(RoleHistory(output.role));
  output.Check("Writing linear range history");
}

void WriteIdentity(FitsOutput& output) {
  fitsfile* file = output.file.Get();
  if (output.FloatUnscreen()) {
    std::string unit = "1";
    fits_update_key(file, TSTRING, "BUNIT", unit.data(), "Dimensionless unscreen fraction", &output.status);
  }
  std::string creator = "QuorvanThine CLI";
  fits_update_key(file, TSTRING, "CREATOR", creator.data(), nullptr, &output.status);
  output.Check("Writing metadata");
}

}  // namespace

void WriteFitsImage(const std::string& path, const cv::Mat& image, bool grayscale, const FitsMetadata* metadata,
                    FitsOutputRole role, const CliDiagnostics& diagnostics) {
  FitsOutput output{.path = path, .metadata = metadata, .role = role, .diagnostics = diagnostics};
  {
    const cv::Mat pixels = OutputChannels(image, grayscale, metadata);
    output.columns = pixels.cols;
    output.rows = pixels.rows;
    output.channels = pixels.channels();
    output.samples = FlattenForFits(pixels, metadata != nullptr ? metadata->channelLayout : FitsChannelLayout::Mono);
  }
  if (output.Linear()) {
    RestoreLinearSamples(output);
  } else if (!output.FloatUnscreen()) {
    RestorePhysicalSamples(output.samples, metadata);
  }
  ReportConversion(output);
  CreateImage(output);
  WriteScaling(output);
  WritePixels(output);
  WriteExtrema(output);
  WritePreservedHeaderCards(output.file.Get(), metadata, path);
  WriteIntegerHistory(output);
  WriteLinearHistory(output);
  WriteIdentity(output);
  fits_write_chksum(output.file.Get(), &output.status);
  output.Check("Writing checksum");
  output.file.CloseChecked("Closing", path);
}

}  // namespace ulmora::cli
