#pragma once
// What a FITS source was: everything that a FITS output needs to reproduce its storage, scaling, layout and header.

#include <cstdint>
#include <string>
#include <vector>

namespace ulmora::cli {

/// How the channels lie in the FITS data; p is y * width + x, c the channel.
enum class FitsChannelLayout : std::int32_t {
  Mono = 0,        ///< NAXIS = 2: sample p
  PlaneLast = 1,   ///< NAXIS3 = 3: sample c * width * height + p
  PlaneFirst = 2,  ///< NAXIS1 = 3: sample p * 3 + c
};

struct FitsMetadata {
  std::vector<std::string> headerCards;  ///< every card of the selected HDU, in file order, as CFITSIO returns it
  FitsChannelLayout channelLayout = FitsChannelLayout::Mono;
  std::int32_t bitpix = -32;          ///< as stored
  std::int32_t equivalentType = -32;  ///< after BZERO and BSCALE
  double normalizationScale = 1.0;    ///< takes a physical sample to a normalized one; 1 / fixedDivisor
  double bscale = 1.0;
  double bzero = 0.0;
  bool hasBscale = false;
  bool hasBzero = false;
  bool hasDatamin = false;  ///< the values are not kept: an output has extrema of its own
  bool hasDatamax = false;
  bool linear = false;                      ///< the image was read for the linear mode
  bool restoreForwardShadowSamples = true;  ///< source samples at or below the shadows point are written back
  double fixedDivisor = 1.0;                ///< K, from the sample type alone
  std::uint64_t upperClippedSamples = 0;    ///< in linear mode: samples above 1 after division by K
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::vector<double> physicalSamples;   ///< in linear mode: all samples in file order, before any clipping
  std::vector<double> shadowThresholds;  ///< one a channel, normalized; from the stretch of a linear run
  std::vector<bool> constantChannels;    ///< one a channel; from the stretch of a linear run
};

}  // namespace ulmora::cli
