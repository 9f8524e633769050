#include "engine/program/ops/ImageSampler.h"

#include "engine/program/ops/IntMath.h"

#include <algorithm>
#include <cmath>

namespace ulmora::engine::program {
namespace {

/// Which element of an axis of `size` stands at `index`; -1 if none does.
std::int64_t Inside(std::int64_t index, std::int64_t size, OutsideImage outside) {
  if (index >= 0 && index < size) return index;
  switch (outside) {
    case OutsideImage::Border:
      return index < 0 ? 0 : size - 1;
    case OutsideImage::Reflected: {
      if (size == 1) return 0;
      const std::int64_t turn = FloorMod(index, 2 * size - 2);
      return turn < size ? turn : 2 * size - 2 - turn;
    }
    case OutsideImage::Symmetric: {
      const std::int64_t turn = FloorMod(index, 2 * size);
      return turn < size ? turn : 2 * size - 1 - turn;
    }
    default:
      return -1;
  }
}

/// Far outside all images, positions are as good as at infinity; NaN is, too.
double Bounded(double position) {
  constexpr double kFar = 1099511627776.0;  // 2^40
  return std::isnan(position) ? -kFar : std::clamp(position, -kFar, kFar);
}

}  // namespace

ImageSampler::ImageSampler(const Tensor& x, OutsideImage outside, double value)
    : elements_(x.floats()),
      channels_(x.shape()[1]),
      height_(x.shape()[2]),
      width_(x.shape()[3]),
      outside_(outside),
      value_(value) {}

double ImageSampler::At(std::int64_t plane, std::int64_t row, std::int64_t column) const {
  const std::int64_t y = Inside(row, height_, outside_);
  const std::int64_t x = Inside(column, width_, outside_);
  if (y < 0 || x < 0) return value_;
  return static_cast<double>(elements_[static_cast<std::size_t>((plane * height_ + y) * width_ + x)]);
}

double ImageSampler::Linear(std::int64_t n, std::int64_t c, double row, double column) const {
  const double top = std::floor(Bounded(row));
  const double left = std::floor(Bounded(column));
  const double down = Bounded(row) - top;
  const double right = Bounded(column) - left;
  const std::int64_t plane = n * channels_ + c;
  double sum = 0.0;
  for (const std::int64_t dy : {0, 1}) {
    for (const std::int64_t dx : {0, 1}) {
      const double weight = (dy == 0 ? 1.0 - down : down) * (dx == 0 ? 1.0 - right : right);
      // Without the test, a NaN or infinity beside the sample would leak into it.
      if (weight != 0.0) {
        sum += weight * At(plane, static_cast<std::int64_t>(top) + dy, static_cast<std::int64_t>(left) + dx);
      }
    }
  }
  return sum;
}

double ImageSampler::Nearest(std::int64_t n, std::int64_t c, double row, double column) const {
  return At(n * channels_ + c, static_cast<std::int64_t>(std::nearbyint(Bounded(row))),
            static_cast<std::int64_t>(std::nearbyint(Bounded(column))));
}

}  // namespace ulmora::engine::program
