#pragma once
// The midtones transfer function of the linear mode, its inverse, the statistics of a channel that parameterise it, and
// the stretch of whole float32 images.
//
// Calling order for an image: ComputeLinearMtf, LinearMtfClippedSamples, ApplyLinearMtf, processing,
// ApplyInverseLinearMtf, RestoreLinearMtfClippedSamples with the source and the mask. The image functions take CV_32F
// images of one or three channels, and throw std::invalid_argument, before they change anything, for any other.

#include <opencv2/core.hpp>

#include <vector>

namespace ulmora {

/// The inverse of the midtones transfer function with balance m at y: m*y / (m*y + (1 - m)*(1 - y)) inside (0, 1), 0 at
/// and below 0, 1 at and above 1. It is the transfer function with balance 1 - m, in the form that rounds best.
[[nodiscard]] double InverseMidtonesSample(double midtones, double stretched);

}  // namespace ulmora

namespace ulmora::core {

/// The stretch of one channel; the defaults leave it as it is. Samples are in normalized units, 1.0 is full scale.
struct LinearMtfChannel {
  double median = 0.0;
  double normalizedMad = 0.0;  ///< median of the absolute deviations from the median, times 1.4826
  double shadows = 0.0;        ///< samples at or below it become black; in [0, 1]
  double midtones = 0.5;       ///< balance of the transfer function; 0.5 is the identity
};

/// Takes the median absolute deviation of normally distributed samples to their standard deviation.
inline constexpr double kMadToSigma = 1.4826;

/// The midtones transfer function: the rational curve through (0, 0), (midtones, 0.5) and (1, 1), that is
/// (m - 1)*x / ((2*m - 1)*x - m), and 0 or 1 outside (0, 1). A NaN sample gives 0. Solved for the balance it is the
/// same function: MidtonesTransfer(target, x) is the balance that takes x to the target.
[[nodiscard]] double MidtonesTransfer(double midtones, double sample);

/// Undoes MidtonesTransfer with the same balance on (0, 1).
[[nodiscard]] double InverseMidtonesTransfer(double midtones, double stretched);

/// The stretch of each channel that takes its background (its median) to `targetBackground`, in (0, 1), with the
/// shadows point `shadowsClipping` (negative) normalized MADs from the median, 0 for a channel without spread. Throws
/// std::invalid_argument for other numbers.
[[nodiscard]] std::vector<LinearMtfChannel> ComputeLinearMtf(const cv::Mat& image, double shadowsClipping,
                                                             double targetBackground);

/// Stretches the image in place: MidtonesTransfer(midtones, sample - shadows) in each channel. There is no rescaling by
/// the shadows, so a sample of 1 ends below 1 if shadows is positive.
void ApplyLinearMtf(cv::Mat& image, const std::vector<LinearMtfChannel>& channels);

/// Undoes ApplyLinearMtf in place, without any clamping: a sample at or below 0 becomes the shadows point.
void ApplyInverseLinearMtf(cv::Mat& image, const std::vector<LinearMtfChannel>& channels);

/// CV_8U mask of the image's size and channels: 255 where a sample is at or below its channel's shadows, 0 elsewhere.
[[nodiscard]] cv::Mat LinearMtfClippedSamples(const cv::Mat& image, const std::vector<LinearMtfChannel>& channels);

/// Gives `output` the samples of `source`, bit for bit, wherever the mask is set.
void RestoreLinearMtfClippedSamples(cv::Mat& output, const cv::Mat& source, const cv::Mat& clippedMask);

}  // namespace ulmora::core
