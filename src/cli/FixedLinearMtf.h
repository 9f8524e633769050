#pragma once
// One linear image, prepared for the network by the midtones stretch in double precision, with the way back.

#include "core/LinearMtf.h"

#include <opencv2/core.hpp>

#include <cstdint>
#include <vector>

namespace ulmora::cli {

/// Computes everything at construction and is immutable afterwards. Effective samples are raw samples divided by the
/// divisor and clipped above at 1; negative ones stay. Channels whose effective samples are all equal are constant: the
/// network sees them black and the inverse gives back their source. Failures are std::invalid_argument.
class FixedLinearMtf {
 public:
  struct Channel : core::LinearMtfChannel {
    bool constant = false;
    double minimum = 0.0;  ///< of the raw samples
    double maximum = 0.0;
    std::uint64_t belowZero = 0;       ///< samples whose normalized value is below 0
    std::uint64_t aboveOne = 0;        ///< samples whose normalized value is above 1
    std::uint64_t clippedSamples = 0;  ///< effective samples at or below the shadows point
  };

  /// Prepares a CV_64F image of one or three channels. `sampleDivisor` takes raw samples to the range in which 1.0 is
  /// full scale; `shadowsMultiplier` (negative) and `targetBackground` (in (0, 1)) are as in ComputeLinearMtf. Throws
  /// for non-finite samples, and for a channel that is not constant and whose stretch could not be inverted.
  FixedLinearMtf(const cv::Mat& image, double sampleDivisor, double shadowsMultiplier, double targetBackground);

  [[nodiscard]] const cv::Mat& EffectiveInput() const { return effectiveInput; }
  [[nodiscard]] const std::vector<Channel>& Channels() const { return channels; }

  /// The stretched samples as a new CV_32F image, the only step at which the stretch leaves double precision.
  [[nodiscard]] cv::Mat InferenceInput() const;

  /// Undoes the stretch on a prediction of the image's size and channels, CV_32F or CV_64F; returns CV_64F in
  /// normalized units, not clamped. Constant channels come back as their effective samples, and so do clipped ones if
  /// asked. Throws for a non-finite prediction in a channel that is not constant.
  [[nodiscard]] cv::Mat Inverse(const cv::Mat& prediction, bool restoreClipped) const;

  /// Gives the image the effective samples of constant channels and of those at or below the shadows point.
  void RestoreNormalized(cv::Mat& image) const;

  /// Throws unless the image has the size and type of EffectiveInput.
  void ValidateMatching(const cv::Mat& image) const;

  /// Throws unless the image is non-empty, CV_64F, and has one or three channels.
  static void ValidateImage(const cv::Mat& image);

  /// The exact median of a non-empty list; between the two middle values if their number is even.
  static double Median(std::vector<double> values);

 private:
  /// Fills the effective samples of channel c, its ranges and its counts; returns the samples.
  std::vector<double> Normalize(int c);
  /// Derives the stretch of channel c from its effective samples.
  void ComputeStretch(int c, std::vector<double> samples, double shadowsMultiplier, double targetBackground);
  /// Fills the prepared samples of channel c and counts the clipped ones.
  void Prepare(int c);

  double divisor;
  cv::Mat input;           ///< a snapshot of the raw image
  cv::Mat effectiveInput;  ///< normalized, clipped above at 1
  cv::Mat prepared;        ///< stretched
  std::vector<Channel> channels;
};

}  // namespace ulmora::cli
