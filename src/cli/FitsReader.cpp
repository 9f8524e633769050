#include "cli/FitsReader.h"

#include "cli/FitsFile.h"
#include "cli/FitsHeaderCards.h"
#include "cli/FitsReport.h"
#include "cli/FitsSamples.h"
#include "cli/FitsTileSizes.h"
#include "cli/FitsTiles.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace ulmora::cli {
namespace {

/// All samples of the HDU in physical units, undefined ones as NaN.
using PhysicalSamples = std::vector<double>;

/// How many samples are NaN. Infinities are not undefined, only unusable.
std::uint64_t CountUndefined(const PhysicalSamples& samples, const InputRange& range) {
  if (range.finite == range.samples) return 0;
  return static_cast<std::uint64_t>(
      std::count_if(samples.begin(), samples.end(), [](double sample) { return std::isnan(sample); }));
}

/// Tables and images of other ranks are passed over; the first HDU with a non-empty 2-D or 3-D image wins. Whether a
/// cube has three channels is not asked here.
void MoveToFirstImageHdu(fitsfile* file, const std::string& path, int& status) {
  int count = 0;
  status = CheckTileSizes(file, path);
  fits_get_num_hdus(file, &count, &status);
  CheckFits(status, "Inspecting HDUs", path);
  for (int number = 1; number <= count; ++number) {
    fits_movabs_hdu(file, number, nullptr, &status);
    CheckFits(status, "Moving to HDU", path);
    FitsAxes axes;
    fits_get_img_dim(file, &axes.count, &status);
    fits_get_img_size(file, 3, axes.lengths.data(), &status);
    if (std::exchange(status, 0) != 0) continue;
    const auto exists = [&](std::size_t axis) { return axes.lengths[axis] >= 1; };
    if (axes.count != 2 && axes.count != 3) continue;
    if (exists(0) && exists(1) && (axes.count == 2 || exists(2))) return;
  }
  throw std::invalid_argument("No supported image HDU found in FITS image: " + path);
}

/// The multiplier that takes physical samples of an integer format to the normalized range: 1 over its positive
/// maximum. uint64 shares int64's on purpose, so that its white is 2^63.
double IntegerNormalizationScale(int type) {
  switch (type) {
    case BYTE_IMG:
      return 1.0 / 255.0;
    case SBYTE_IMG:
      return 1.0 / 127.0;
    case SHORT_IMG:
      return 1.0 / 32767.0;
    case USHORT_IMG:
      return 1.0 / 65535.0;
    case LONG_IMG:
      return 1.0 / 2147483647.0;
    case ULONG_IMG:
      return 1.0 / 4294967295.0;
    case LONGLONG_IMG:
    case ULONGLONG_IMG:
      return 0x1p-63;
    default:
      return 1.0;
  }
}

std::optional<double> ReadOptionalDoubleKey(fitsfile* file, const char* name) {
  int status = 0;
  double value = 0.0;
  fits_read_key(file, TDOUBLE, name, &value, nullptr, &status);
  if (status == KEY_NO_EXIST) fits_clear_errmsg();
  return status == 0 ? std::optional(value) : std::nullopt;
}

FitsHeaderExtrema ReadHeaderExtrema(fitsfile* file) {
  return {ReadOptionalDoubleKey(file, "DATAMIN"), ReadOptionalDoubleKey(file, "DATAMAX")};
}

/// Reads the last sample alone. A header may claim any size; if the data does not reach that far, the read fails here,
/// before anything is allocated for the claim. Tiles are not read twice: CFITSIO 4.2 keeps the last one that it
/// decoded, and reading it again asks for null flags that it has not kept.
int ProbeData(fitsfile* file, FitsAxes axes) {
  int status = 0;
  if (fits_is_compressed_image(file, &status) != 0) return CheckTileStreams(file, axes);
  double sample = 0.0;
  fits_read_pix(file, TDOUBLE, axes.lengths.data(), 1, nullptr, &sample, nullptr, &status);
  return status;
}

/// Number of samples, or nothing if it is beyond what memory can address.
std::optional<std::size_t> SampleCount(const FitsAxes& axes) {
  std::size_t count = 1;
  for (int axis = 0; axis < axes.count; ++axis) {
    const auto length = static_cast<std::size_t>(axes.lengths[static_cast<std::size_t>(axis)]);
    if (length > std::numeric_limits<std::ptrdiff_t>::max() / sizeof(double) / count) return std::nullopt;
    count *= length;
  }
  return count;
}

PhysicalSamples ReadPhysicalSamples(fitsfile* file, const FitsAxes& axes, bool floatingPoint, const std::string& path) {
  static constexpr const char* kStage = "Reading double-precision physical pixels";
  const std::optional<std::size_t> count = SampleCount(axes);
  int status = count ? ProbeData(file, axes) : END_OF_FILE;
  CheckFits(status, kStage, path);

  PhysicalSamples samples(*count);
  std::array<long, 3> first = {1, 1, 1};
  const auto elements = static_cast<LONGLONG>(*count);
  int anyNull = 0;
  if (floatingPoint) {
    fits_read_pix(file, TDOUBLE, first.data(), elements, nullptr, samples.data(), &anyNull, &status);
    CheckFits(status, kStage, path);
    return samples;
  }
  std::vector<char> nulls(*count);
  fits_read_pixnull(file, TDOUBLE, first.data(), elements, samples.data(), nulls.data(), &anyNull, &status);
  CheckFits(status, kStage, path);
  for (std::size_t i = 0; i < *count; ++i) {
    if (nulls[i] != 0) samples[i] = std::numeric_limits<double>::quiet_NaN();
  }
  return samples;
}

void RefuseNonFinite(const InputRange& range, const std::string& path) {
  if (range.finite == range.samples) return;
  throw std::invalid_argument("FITS input contains " + std::to_string(range.samples - range.finite) +
                              " non-finite/undefined source sample(s); repair the image upstream: " + path);
}

void ValidateNormalizedFloatPixels(fitsfile* file, const InputRange& range, const std::string& path) {
  if (range.finite == 0) {
    throw std::invalid_argument("Floating-point FITS input contains no finite samples: " + path);
  }
  if (range.minimum >= 0.0 && range.maximum <= 1.0) return;
  throw std::invalid_argument(UnnormalizedFitsText(range, ReadHeaderExtrema(file)));
}

/// Linear mode words its refusal of a cube more briefly.
void RequireSupportedCube(const FitsAxes& axes, bool linear, const std::string& path) {
  if (axes.IsSupported()) return;
  throw std::invalid_argument("Unsupported FITS cube dimensions in " + path +
                              (linear ? "" : ". Only 2D images and simple 3-channel RGB cubes are supported."));
}

FitsAxes ReadAxes(fitsfile* file, const std::string& path, int& status) {
  FitsAxes axes;
  fits_get_img_dim(file, &axes.count, &status);
  CheckFits(status, "Reading dimensions", path);
  fits_get_img_size(file, 3, axes.lengths.data(), &status);
  CheckFits(status, "Reading image size", path);
  return axes;
}

void ReadStorage(fitsfile* file, const std::string& path, FitsMetadata& metadata, int& status) {
  int type = 0;
  fits_get_img_type(file, &type, &status);
  CheckFits(status, "Reading storage type", path);
  metadata.bitpix = type;
  fits_get_img_equivtype(file, &type, &status);
  CheckFits(status, "Reading image type", path);
  metadata.equivalentType = type;
  metadata.headerCards = ReadHeaderCards(file, path);
}

void ReadScalingCards(fitsfile* file, FitsMetadata& metadata) {
  const std::optional<double> bscale = ReadOptionalDoubleKey(file, "BSCALE");
  const std::optional<double> bzero = ReadOptionalDoubleKey(file, "BZERO");
  const FitsHeaderExtrema extrema = ReadHeaderExtrema(file);
  metadata.bscale = bscale.value_or(1.0);
  metadata.bzero = bzero.value_or(0.0);
  metadata.hasBscale = bscale.has_value();
  metadata.hasBzero = bzero.has_value();
  metadata.hasDatamin = extrema.datamin.has_value();
  metadata.hasDatamax = extrema.datamax.has_value();
}

}  // namespace

FitsImage ReadFitsImageWithMetadata(const std::string& path, bool linear, const CliDiagnostics& diagnostics) {
  int status = 0;
  FitsFile file;
  fits_open_diskfile(file.Out(), FitsDiskName(path).c_str(), READONLY, &status);
  CheckFits(status, "Opening", path);
  MoveToFirstImageHdu(file.Get(), path, status);

  FitsImage result;
  FitsMetadata& metadata = result.metadata;
  const FitsAxes axes = ReadAxes(file.Get(), path, status);
  ReadStorage(file.Get(), path, metadata, status);
  ReportFitsFormat(metadata, axes, diagnostics);

  const bool floatingPoint = metadata.bitpix == FLOAT_IMG || metadata.bitpix == DOUBLE_IMG;
  metadata.linear = linear;
  metadata.normalizationScale = floatingPoint ? 1.0 : IntegerNormalizationScale(metadata.equivalentType);
  metadata.fixedDivisor = 1.0 / metadata.normalizationScale;

  PhysicalSamples samples = ReadPhysicalSamples(file.Get(), axes, floatingPoint, path);
  const FitsRanges ranges = MeasureFitsRanges(samples, axes, metadata.fixedDivisor);
  ReportFitsRanges(ranges, CountUndefined(samples, ranges.overall), metadata.fixedDivisor, diagnostics);
  ReportHeaderExtrema(ReadHeaderExtrema(file.Get()), ranges.overall, diagnostics);
  ReportFitsConversion(metadata.fixedDivisor, linear, diagnostics);
  RefuseNonFinite(ranges.overall, path);

  if (linear) {
    metadata.upperClippedSamples = ranges.overall.aboveOne;
    ReportLinearPreparation(ranges.overall, metadata.fixedDivisor, diagnostics);
    RequireSupportedCube(axes, linear, path);
    result.image = LinearFitsImage(samples, axes, metadata.fixedDivisor);
    metadata.physicalSamples = std::move(samples);
  } else {
    if (floatingPoint) ValidateNormalizedFloatPixels(file.Get(), ranges.overall, path);
    RequireSupportedCube(axes, linear, path);
    result.image = NormalizedFitsImage(samples, axes, metadata.normalizationScale);
  }
  metadata.width = result.image.cols;
  metadata.height = result.image.rows;
  metadata.channelLayout = axes.Layout();
  ReadScalingCards(file.Get(), metadata);
  file.CloseChecked("Closing", path);
  return result;
}

cv::Mat ReadFitsImage(const std::string& path) {
  return ReadFitsImageWithMetadata(path, false, {.quiet = true, .machineProgress = false, .stream = &std::cerr}).image;
}

}  // namespace ulmora::cli
