#include "core/LinearMtf.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace ulmora {

double InverseMidtonesSample(double midtones, double stretched) {
  if (stretched <= 0.0) return 0.0;
  if (stretched >= 1.0) return 1.0;
  const double share = midtones * stretched;
  return share / (share + (1.0 - midtones) * (1.0 - stretched));
}

}  // namespace ulmora

namespace ulmora::core {
namespace {

void ValidateImage(const cv::Mat& image) {
  if (image.empty()) throw std::invalid_argument("Cannot apply linear MTF to an empty image.");
  if (image.depth() != CV_32F || (image.channels() != 1 && image.channels() != 3)) {
    throw std::invalid_argument("Linear MTF requires a float32 grayscale or RGB image.");
  }
}

void ValidateChannels(const cv::Mat& image, const std::vector<LinearMtfChannel>& channels) {
  if (channels.size() != static_cast<std::size_t>(image.channels())) {
    throw std::invalid_argument("Linear MTF channel parameters do not match the image.");
  }
}

std::vector<float> ChannelSamples(const cv::Mat& image, int channel) {
  const int step = image.channels();
  std::vector<float> samples;
  samples.reserve(image.total());
  for (int y = 0; y < image.rows; ++y) {
    const float* const row = image.ptr<float>(y);
    for (int i = channel; i < image.cols * step; i += step) samples.push_back(row[i]);
  }
  return samples;
}

double Median(std::vector<float> values) {
  if (values.empty()) throw std::invalid_argument("Cannot calculate MTF statistics for an empty image channel.");
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  const double high = *middle;
  if (values.size() % 2 == 1) return high;
  const double low = *std::max_element(values.begin(), middle);
  return (low + high) / 2.0;
}

LinearMtfChannel ComputeChannel(std::vector<float> samples, double shadowsClipping, double targetBackground) {
  LinearMtfChannel channel;
  channel.median = Median(samples);
  for (float& sample : samples) sample = static_cast<float>(std::abs(double{sample} - channel.median));
  channel.normalizedMad = Median(std::move(samples)) * kMadToSigma;
  channel.shadows = 0.0;
  if (channel.normalizedMad > 0.0) {
    channel.shadows = std::clamp(channel.median + shadowsClipping * channel.normalizedMad, 0.0, 1.0);
  }
  channel.midtones = MidtonesTransfer(targetBackground, channel.median - channel.shadows);
  return channel;
}

// Replaces every sample by transform(its channel's parameters, sample), computed in double.
template <typename Transform>
void TransformImage(cv::Mat& image, const std::vector<LinearMtfChannel>& channels, Transform transform) {
  ValidateImage(image);
  ValidateChannels(image, channels);
  for (int y = 0; y < image.rows; ++y) {
    float* sample = image.ptr<float>(y);
    for (int x = 0; x < image.cols; ++x) {
      for (const LinearMtfChannel& channel : channels) {
        *sample = static_cast<float>(transform(channel, double{*sample}));
        ++sample;
      }
    }
  }
}

}  // namespace

double MidtonesTransfer(double midtones, double sample) {
  if (!(sample > 0.0)) return 0.0;
  if (sample >= 1.0) return 1.0;
  return ((midtones - 1.0) * sample) / ((midtones + (midtones - 1.0)) * sample - midtones);
}

double InverseMidtonesTransfer(double midtones, double stretched) {
  return InverseMidtonesSample(midtones, stretched);
}

std::vector<LinearMtfChannel> ComputeLinearMtf(const cv::Mat& image, double shadowsClipping, double targetBackground) {
  ValidateImage(image);
  if (!std::isfinite(targetBackground) || targetBackground <= 0.0 || targetBackground >= 1.0) {
    throw std::invalid_argument("Target background must be finite and strictly between 0 and 1.");
  }
  if (!std::isfinite(shadowsClipping) || shadowsClipping >= 0.0) {
    throw std::invalid_argument("Shadows clipping must be a finite negative normalized-MAD multiplier.");
  }
  std::vector<LinearMtfChannel> channels;
  channels.reserve(static_cast<std::size_t>(image.channels()));
  for (int c = 0; c < image.channels(); ++c) {
    channels.push_back(ComputeChannel(ChannelSamples(image, c), shadowsClipping, targetBackground));
  }
  return channels;
}

void ApplyLinearMtf(cv::Mat& image, const std::vector<LinearMtfChannel>& channels) {
  TransformImage(image, channels, [](const LinearMtfChannel& channel, double sample) {
    return MidtonesTransfer(channel.midtones, sample - channel.shadows);
  });
}

void ApplyInverseLinearMtf(cv::Mat& image, const std::vector<LinearMtfChannel>& channels) {
  TransformImage(image, channels, [](const LinearMtfChannel& channel, double stretched) {
    return InverseMidtonesTransfer(channel.midtones, stretched) + channel.shadows;
  });
}

cv::Mat LinearMtfClippedSamples(const cv::Mat& image, const std::vector<LinearMtfChannel>& channels) {
  ValidateImage(image);
  ValidateChannels(image, channels);
  cv::Mat mask(image.size(), CV_8UC(image.channels()), cv::Scalar::all(0));
  for (int y = 0; y < image.rows; ++y) {
    const float* sample = image.ptr<float>(y);
    std::uint8_t* flag = mask.ptr<std::uint8_t>(y);
    for (int x = 0; x < image.cols; ++x) {
      for (const LinearMtfChannel& channel : channels) {
        if (double{*sample++} <= channel.shadows) *flag = 255;
        ++flag;
      }
    }
  }
  return mask;
}

void RestoreLinearMtfClippedSamples(cv::Mat& output, const cv::Mat& source, const cv::Mat& clippedMask) {
  ValidateImage(output);
  ValidateImage(source);
  if (output.size() != source.size() || output.type() != source.type()) {
    throw std::invalid_argument("Linear MTF source does not match the output image.");
  }
  if (clippedMask.size() != output.size() || clippedMask.channels() != output.channels() ||
      clippedMask.depth() != CV_8U) {
    throw std::invalid_argument("Linear MTF clipped-sample mask does not match the output image.");
  }
  source.copyTo(output, clippedMask);
}

}  // namespace ulmora::core
