#pragma once
// Samples of images at any position, for resample, affine and crop_resize.

#include "engine/Tensor.h"

#include <cstdint>
#include <span>

namespace ulmora::engine::program {

/// What lies outside of an image.
enum class OutsideImage : std::uint8_t {
  Constant,   ///< a value
  Border,     ///< the nearest element
  Reflected,  ///< the image mirrored at its outermost elements, which are not repeated
  Symmetric,  ///< the image mirrored at its edges: the outermost elements are repeated
};

/// The planes of a tensor [N, C, H, W] that has elements.
class ImageSampler {
 public:
  /// `x` must outlive the sampler.
  ImageSampler(const Tensor& x, OutsideImage outside, double value);

  /// Between the four elements around row, column of plane [n, c], each of which may lie outside.
  [[nodiscard]] double Linear(std::int64_t n, std::int64_t c, double row, double column) const;
  /// The nearest element; halves go to the even one, as in PyTorch.
  [[nodiscard]] double Nearest(std::int64_t n, std::int64_t c, double row, double column) const;

 private:
  [[nodiscard]] double At(std::int64_t plane, std::int64_t row, std::int64_t column) const;

  std::span<const float> elements_;
  std::int64_t channels_;
  std::int64_t height_;
  std::int64_t width_;
  OutsideImage outside_;
  double value_;
};

}  // namespace ulmora::engine::program
