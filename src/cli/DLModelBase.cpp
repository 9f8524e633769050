#include "cli/DLModelBase.h"

#include "common/GridAlignedResample.h"

#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

DLModelBase::DLModelBase() = default;
DLModelBase::~DLModelBase() = default;

ulmora::cli::CliDiagnostics DLModelBase::Diagnostics() const {
  return {quiet_, machine_progress_, &std::cerr};
}

void DLModelBase::SetDimensions() {
  width_ = image_.cols;
  height_ = image_.rows;
  if (height_ < window_size_ || width_ < window_size_) {
    throw std::invalid_argument("Image size is too small for the window!");
  }
  tile_geometry_ = ulmora::TileGeometry::ForImage(width_, height_, window_size_, stride_);
  margin_ = tile_geometry_.halfOverlap;
  padded_height_ = tile_geometry_.paddedHeight;
  padded_width_ = tile_geometry_.paddedWidth;
}

namespace {

/// What RestoreFinalLinearSamples did to one channel.
struct RestoredSamples {
  std::uint64_t shadows = 0;     // at or below the shadows point
  std::uint64_t additional = 0;  // above it, in a constant channel
};

void ReportRestored(const std::vector<RestoredSamples>& restored, const ulmora::cli::CliDiagnostics& diagnostics) {
  for (std::size_t c = 0; c < restored.size(); ++c) {
    diagnostics.Info("shadow_restoration",
                     "final_source_grid channel=" + std::to_string(c + 1) +
                         " restored_shadow_samples=" + std::to_string(restored[c].shadows) +
                         " additional_constant_samples=" + std::to_string(restored[c].additional));
  }
}

}  // namespace

// A failed assertion reports its file and line, and those of the two functions below are part of the program's
// contract. The numbering of lines goes on from each of them, so nothing but these two functions may stand from here
// on, and they may not move to another file.
void DLModelBase::RestoreFinalLinearSamples(cv::Mat& image) const {
  if (!linear_enabled_) return;
  const cv::Mat& sourceOutput = source_image_;
#line 141
  CV_Assert(image.type() == sourceOutput.type() && image.size() == sourceOutput.size());
  const std::vector<ulmora::cli::FixedLinearMtf::Channel>& stretch = fixed_linear_mtf_->Channels();
  std::vector<RestoredSamples> restored(static_cast<std::size_t>(image.channels()));
  for (int y = 0; y < image.rows; ++y) {
    double* sample = image.ptr<double>(y);
    const double* source = sourceOutput.ptr<double>(y);
    for (int x = 0; x < image.cols; ++x) {
      for (std::size_t c = 0; c < restored.size(); ++c, ++sample, ++source) {
        const bool inShadows = *source <= stretch[c].shadows;
        if (!stretch[c].constant && !(restore_shadows_ && inShadows)) continue;
        *sample = *source;
        ++(inShadows ? restored[c].shadows : restored[c].additional);
      }
    }
  }
  if (restore_shadows_) ReportRestored(restored, Diagnostics());
}

cv::Mat DLModelBase::RescaleImage(cv::Mat image, double scale) {
#line 456
  CV_Assert(scale == 2.0 || scale == 0.5);
  if (scale == 2.0) return ulmora::UpsampleGridCubic2x(image);
  return ulmora::DownsampleGrid2x(image, cv::Size(image.cols / 2, image.rows / 2));
}
