// Linear mode: what the network sees of a linear image, and the way back to its samples. Without the mode each step
// passes its image through.

#include "cli/DLModelBase.h"
#include "cli/FloatImageChannels.h"
#include "cli/ImageStatistics.h"
#include "common/GridAlignedResample.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace {

using ulmora::cli::CliDiagnostics;
using ulmora::cli::CliWarning;
using ulmora::cli::FixedLinearMtf;

bool HasSampleAboveOne(const cv::Mat& image) {
  for (int y = 0; y < image.rows; ++y) {
    const double* const row = image.ptr<double>(y);
    if (std::any_of(row, row + image.cols * image.channels(), [](double sample) { return sample > 1.0; })) return true;
  }
  return false;
}

void WarnOfClipping(const cv::Mat& image, const CliDiagnostics& diagnostics) {
  // The statistics are for the warning alone, and most images need none.
  if (!HasSampleAboveOne(image)) return;
  const ulmora::cli::InputRange range = ulmora::cli::MeasureRanges(image, 1.0).overall;
  // An infinity is above 1 but no finite sample; the preparation refuses it in its own words.
  if (range.aboveOne == 0) return;
  diagnostics.Warn(CliWarning::DataLoss, "Pre-MTF working-grid samples above 1 are clipped. " + range.Describe(1.0));
}

void ReportChannel(std::size_t index, const FixedLinearMtf::Channel& channel, double inputScale, double shadowsClipping,
                   double targetBackground, const CliDiagnostics& diagnostics) {
  std::ostringstream text;
  text << std::setprecision(17) << "channel=" << index + 1 << " median=" << channel.median
       << " normalized_MAD=" << channel.normalizedMad << " shadows=" << channel.shadows
       << " physical_shadows=" << channel.shadows * inputScale << " midtones=" << channel.midtones
       << " shadows_multiplier=" << shadowsClipping << " target_background=" << targetBackground
       << " working_grid_clipped=" << channel.clippedSamples << " constant=" << channel.constant
       << "; MTF/inverse=float64; inference=float32";
  diagnostics.Info("linear_mtf", text.str());
}

}  // namespace

void DLModelBase::ConfigureLinearMtf(bool linear, double shadowsClipping, double targetBackground,
                                     bool shadowRestoration) {
  linear_enabled_ = linear;
  restore_shadows_ = shadowRestoration;
  fits_metadata_.restoreForwardShadowSamples = shadowRestoration;
  linear_image_.release();
  linear_channels_.clear();
  fixed_linear_mtf_.reset();
  const CliDiagnostics diagnostics = Diagnostics();
  if (!linear) {
    diagnostics.Info("linear_mtf", "disabled; no automatic stretch or inverse transform");
    return;
  }
  if (image_.empty() || image_.depth() != CV_64F) {
    throw std::invalid_argument("Linear preparation requires a nonempty float64 input.");
  }
  WarnOfClipping(image_, diagnostics);
  // Divisor 1: the samples were normalized when they were read.
  fixed_linear_mtf_ = std::make_unique<FixedLinearMtf>(image_, 1.0, shadowsClipping, targetBackground);
  // A new buffer: the old one may be that of source_image_, which keeps the samples as they were read.
  image_ = fixed_linear_mtf_->EffectiveInput().clone();
  const std::vector<FixedLinearMtf::Channel>& channels = fixed_linear_mtf_->Channels();
  linear_channels_.assign(channels.begin(), channels.end());
  RecordFitsLinearShadows(linear_channels_);
  linear_image_ = fixed_linear_mtf_->InferenceInput();
  for (std::size_t c = 0; c < channels.size(); ++c) {
    ReportChannel(c, channels[c], input_scale_, shadowsClipping, targetBackground, diagnostics);
  }
}

void DLModelBase::RecordFitsLinearShadows(const std::vector<ulmora::core::LinearMtfChannel>& channels) {
  fits_metadata_.shadowThresholds.clear();
  fits_metadata_.constantChannels.clear();
  if (!fits_metadata_.linear) return;
  for (std::size_t c = 0; c < channels.size(); ++c) {
    fits_metadata_.shadowThresholds.push_back(channels[c].shadows);
    fits_metadata_.constantChannels.push_back(fixed_linear_mtf_->Channels()[c].constant);
  }
}

const cv::Mat& DLModelBase::InferenceImage() const {
  return linear_enabled_ ? linear_image_ : image_;
}

cv::Mat DLModelBase::RestoreLinearMtfOutput(const cv::Mat& output) const {
  return linear_enabled_ ? fixed_linear_mtf_->Inverse(output, restore_shadows_) : output.clone();
}

cv::Mat DLModelBase::FinalizeLinearImage(const cv::Mat& image) const {
  if (!linear_enabled_) return image;
  cv::Mat result = image.clone();
  if (result.size() != source_image_.size()) result = ulmora::DownsampleGrid2x(result, source_image_.size());
  if (grayscale_ && result.channels() == 3) result = ulmora::cli::RgbToGray(result);
  RestoreFinalLinearSamples(result);
  return result;
}
