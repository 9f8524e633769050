#include "cli/FitsEncoding.h"

#include <fitsio.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

namespace ulmora::cli {
namespace {

/// The physical range of an integer sample type. 64-bit storage is not limited: its ends are no doubles.
std::pair<double, double> PhysicalLimits(int type) {
  switch (type) {
    case BYTE_IMG:
      return {0.0, 255.0};
    case SBYTE_IMG:
      return {-128.0, 127.0};
    case SHORT_IMG:
      return {-32768.0, 32767.0};
    case USHORT_IMG:
      return {0.0, 65535.0};
    case LONG_IMG:
      return {-2147483648.0, 2147483647.0};
    case ULONG_IMG:
      return {0.0, 4294967295.0};
    default:
      return {std::numeric_limits<double>::lowest(), std::numeric_limits<double>::max()};
  }
}

bool IsPreserved(double normalizedSource, const FitsMetadata& metadata, std::size_t channel) {
  if (!metadata.constantChannels.empty() && metadata.constantChannels.at(channel)) return true;
  return metadata.restoreForwardShadowSamples && normalizedSource <= metadata.shadowThresholds.at(channel);
}

/// What a reader finds for a physical value that was written: encoded as the writer does and scaled back.
double ReadBackValue(double physical, const FitsMetadata& metadata) {
  double stored = 0.0;
  if (metadata.bitpix > 0) {
    std::uint64_t clipped = 0;
    stored = IntegerStorageSample(physical, metadata, clipped);
  } else {
    stored = (physical - metadata.bzero) / metadata.bscale;
    if (metadata.bitpix == FLOAT_IMG) stored = static_cast<double>(static_cast<float>(stored));
  }
  const double value = std::fma(stored, metadata.bscale, metadata.bzero);
  if (!std::isfinite(value)) {
    throw std::invalid_argument("Processed FITS value cannot be encoded in source storage units.");
  }
  return value;
}

}  // namespace

double LinearPhysicalSample(double sample, const FitsMetadata& metadata, FitsOutputRole role, int channel,
                            std::size_t index) {
  if (!std::isfinite(sample)) throw std::invalid_argument("Processed FITS output contains a non-finite sample.");
  const double source = metadata.physicalSamples.at(index);
  const double normalizedSource = source / metadata.fixedDivisor;
  const bool fraction = role == FitsOutputRole::unscreen && metadata.bitpix < 0;
  double result = fraction ? std::clamp(sample, 0.0, 1.0) : metadata.fixedDivisor * sample;
  if (IsPreserved(normalizedSource, metadata, static_cast<std::size_t>(channel))) {
    const double limited = normalizedSource > 1.0 ? metadata.fixedDivisor : source;
    result = role == FitsOutputRole::main ? limited : 0.0;
  }
  const bool tooLarge =
      metadata.bitpix == FLOAT_IMG && std::abs(result) > static_cast<double>(std::numeric_limits<float>::max());
  if (!std::isfinite(result) || tooLarge) {
    throw std::invalid_argument("Processed FITS physical value exceeds the source floating-point format.");
  }
  return result;
}

void RequireInvertibleScaling(const FitsMetadata& metadata) {
  if (std::isfinite(metadata.bscale) && metadata.bscale != 0.0 && std::isfinite(metadata.bzero)) return;
  throw std::invalid_argument("FITS integer output requires finite, nonzero source scaling.");
}

double IntegerStorageSample(double value, const FitsMetadata& metadata, std::uint64_t& clippedCount) {
  RequireInvertibleScaling(metadata);
  const auto [lowest, highest] = PhysicalLimits(metadata.equivalentType);
  const double limited = std::clamp(value, lowest, highest);
  if (limited != value) ++clippedCount;
  const double stored = (limited - metadata.bzero) / metadata.bscale;
  if (!std::isfinite(stored)) {
    throw std::invalid_argument("Processed FITS value cannot be encoded in source storage units.");
  }
  return std::round(stored);
}

void RestorePhysicalSamples(std::span<double> samples, const FitsMetadata* metadata) {
  if (metadata == nullptr || metadata->normalizationScale == 1.0) return;
  for (double& sample : samples) sample /= metadata->normalizationScale;
}

cv::Mat ProjectFitsMainOutput(const cv::Mat& image, const FitsMetadata* metadata) {
  static const FitsMetadata kPlain;
  const FitsMetadata& target = metadata != nullptr ? *metadata : kPlain;
  cv::Mat result;
  image.convertTo(result, CV_64F, 1.0, 0.0);
  const auto channels = static_cast<std::size_t>(result.channels());
  const std::size_t plane = result.total();
  if (target.linear && (result.cols != target.width || result.rows != target.height ||
                        plane * channels != target.physicalSamples.size())) {
    throw std::invalid_argument("Linear FITS output geometry differs from the source.");
  }
  const bool planeFirst = target.channelLayout == FitsChannelLayout::PlaneFirst;
  for (int y = 0; y < result.rows; ++y) {
    double* row = result.ptr<double>(y);
    for (std::size_t x = 0; x < static_cast<std::size_t>(result.cols); ++x) {
      const std::size_t pixel = static_cast<std::size_t>(y) * static_cast<std::size_t>(result.cols) + x;
      for (std::size_t c = 0; c < channels; ++c) {
        double& sample = row[x * channels + c];
        const std::size_t index = planeFirst ? pixel * channels + c : c * plane + pixel;
        const double physical =
            target.linear ? LinearPhysicalSample(sample, target, FitsOutputRole::main, static_cast<int>(c), index)
                          : sample / target.normalizationScale;
        sample = ReadBackValue(physical, target) * target.normalizationScale;
      }
    }
  }
  return result;
}

}  // namespace ulmora::cli
