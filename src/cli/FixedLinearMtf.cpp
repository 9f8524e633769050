#include "cli/FixedLinearMtf.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

namespace ulmora::cli {
namespace {

void ValidateParameters(double divisor, double shadowsMultiplier, double targetBackground) {
  if (!std::isfinite(divisor) || divisor <= 0.0) {
    throw std::invalid_argument("Linear input requires a finite positive sample-format divisor.");
  }
  if (!std::isfinite(shadowsMultiplier) || shadowsMultiplier >= 0.0 || !std::isfinite(targetBackground) ||
      targetBackground <= 0.0 || targetBackground >= 1.0) {
    throw std::invalid_argument("Linear MTF requires a negative shadows multiplier and target between 0 and 1.");
  }
}

bool IsInvertible(const core::LinearMtfChannel& channel) {
  return std::isfinite(channel.normalizedMad) && std::isfinite(channel.midtones) && channel.midtones > 0.0 &&
         channel.midtones < 1.0;
}

}  // namespace

FixedLinearMtf::FixedLinearMtf(const cv::Mat& image, double sampleDivisor, double shadowsMultiplier,
                               double targetBackground)
    : divisor(sampleDivisor), input(image.clone()) {
  ValidateImage(image);
  ValidateParameters(divisor, shadowsMultiplier, targetBackground);
  effectiveInput.create(input.size(), input.type());
  prepared.create(input.size(), input.type());
  channels.resize(static_cast<std::size_t>(input.channels()));
  for (int c = 0; c < input.channels(); ++c) {
    ComputeStretch(c, Normalize(c), shadowsMultiplier, targetBackground);
    Prepare(c);
  }
}

std::vector<double> FixedLinearMtf::Normalize(int c) {
  Channel& channel = channels[static_cast<std::size_t>(c)];
  const int step = input.channels();
  std::vector<double> samples;
  samples.reserve(input.total());
  channel.minimum = channel.maximum = input.ptr<double>(0)[c];
  for (int y = 0; y < input.rows; ++y) {
    const double* const rawRow = input.ptr<double>(y);
    double* const effectiveRow = effectiveInput.ptr<double>(y);
    for (int i = c; i < input.cols * step; i += step) {
      const double raw = rawRow[i];
      const double normalized = raw / divisor;
      if (!std::isfinite(raw) || !std::isfinite(normalized)) {
        throw std::invalid_argument("Linear input contains a non-finite sample or unrepresentable conversion.");
      }
      channel.minimum = std::min(channel.minimum, raw);
      channel.maximum = std::max(channel.maximum, raw);
      if (normalized < 0.0) ++channel.belowZero;
      if (normalized > 1.0) ++channel.aboveOne;
      effectiveRow[i] = std::min(normalized, 1.0);
      samples.push_back(effectiveRow[i]);
    }
  }
  return samples;
}

void FixedLinearMtf::ComputeStretch(int c, std::vector<double> samples, double shadowsMultiplier,
                                    double targetBackground) {
  Channel& channel = channels[static_cast<std::size_t>(c)];
  const double first = samples.front();
  channel.constant = std::all_of(samples.begin(), samples.end(), [first](double sample) { return sample == first; });
  channel.median = Median(samples);
  for (double& sample : samples) sample = std::abs(sample - channel.median);
  channel.normalizedMad = Median(std::move(samples)) * core::kMadToSigma;
  channel.shadows = 0.0;
  if (channel.normalizedMad > 0.0) {
    channel.shadows = std::clamp(channel.median + channel.normalizedMad * shadowsMultiplier, 0.0, 1.0);
  }
  channel.midtones = core::MidtonesTransfer(targetBackground, channel.median - channel.shadows);
  if (!channel.constant && !IsInvertible(channel)) {
    throw std::invalid_argument("Linear input has a non-invertible MTF background in channel " + std::to_string(c + 1) +
                                ". Normalize or prepare the image upstream.");
  }
}

void FixedLinearMtf::Prepare(int c) {
  Channel& channel = channels[static_cast<std::size_t>(c)];
  const int step = input.channels();
  for (int y = 0; y < input.rows; ++y) {
    const double* const effectiveRow = effectiveInput.ptr<double>(y);
    double* const preparedRow = prepared.ptr<double>(y);
    for (int i = c; i < input.cols * step; i += step) {
      if (effectiveRow[i] <= channel.shadows) ++channel.clippedSamples;
      preparedRow[i] =
          channel.constant ? 0.0 : core::MidtonesTransfer(channel.midtones, effectiveRow[i] - channel.shadows);
    }
  }
}

cv::Mat FixedLinearMtf::InferenceInput() const {
  cv::Mat narrowed;
  prepared.convertTo(narrowed, CV_32F, 1.0, 0.0);
  return narrowed;
}

cv::Mat FixedLinearMtf::Inverse(const cv::Mat& prediction, bool restoreClipped) const {
  if (prediction.size() != effectiveInput.size() || prediction.channels() != effectiveInput.channels() ||
      (prediction.depth() != CV_32F && prediction.depth() != CV_64F)) {
    throw std::invalid_argument("Linear MTF prediction does not match the prepared image.");
  }
  cv::Mat result;
  prediction.convertTo(result, CV_64F);
  for (int y = 0; y < result.rows; ++y) {
    double* sample = result.ptr<double>(y);
    const double* effective = effectiveInput.ptr<double>(y);
    for (int x = 0; x < result.cols; ++x) {
      for (const Channel& channel : channels) {
        if (channel.constant) {
          *sample = *effective;
        } else if (std::isfinite(*sample)) {
          *sample = core::InverseMidtonesTransfer(channel.midtones, *sample) + channel.shadows;
        } else {
          throw std::invalid_argument("Linear MTF inference returned a non-finite sample.");
        }
        ++sample;
        ++effective;
      }
    }
  }
  if (restoreClipped) RestoreNormalized(result);
  return result;
}

void FixedLinearMtf::RestoreNormalized(cv::Mat& image) const {
  ValidateMatching(image);
  for (int y = 0; y < image.rows; ++y) {
    double* sample = image.ptr<double>(y);
    const double* effective = effectiveInput.ptr<double>(y);
    for (int x = 0; x < image.cols; ++x) {
      for (const Channel& channel : channels) {
        if (channel.constant || *effective <= channel.shadows) *sample = *effective;
        ++sample;
        ++effective;
      }
    }
  }
}

void FixedLinearMtf::ValidateMatching(const cv::Mat& image) const {
  if (image.size() != effectiveInput.size() || image.type() != effectiveInput.type()) {
    throw std::invalid_argument("Linear MTF output does not match the prepared image.");
  }
}

void FixedLinearMtf::ValidateImage(const cv::Mat& image) {
  if (image.empty() || image.depth() != CV_64F || (image.channels() != 1 && image.channels() != 3)) {
    throw std::invalid_argument("Fixed linear MTF requires a float64 mono or RGB image.");
  }
}

double FixedLinearMtf::Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  const double high = *middle;
  if (values.size() % 2 == 1) return high;
  // Halved one by one, so that two large values cannot overflow.
  return *std::max_element(values.begin(), middle) / 2.0 + high / 2.0;
}

}  // namespace ulmora::cli
