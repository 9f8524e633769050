#include "engine/program/ops/ResizeGrid.h"

#include <algorithm>
#include <cmath>

namespace ulmora::engine::program {

double GridPosition(SamplingGrid grid, double in, double out, double i) noexcept {
  switch (grid) {
    case SamplingGrid::Default:
      return i * in / out;
    case SamplingGrid::AlignCorners:
      if (out == 1.0) return (in - 1.0) / 2.0;
      [[fallthrough]];
    case SamplingGrid::StrictAlignCorners:
      return out == 1.0 ? 0.0 : i * (in - 1.0) / (out - 1.0);
    case SamplingGrid::OffsetCorners:
      return (i + 0.5) * std::max(1.0, in - 1.0) / out;
    case SamplingGrid::UnalignCorners:
      return (i + 0.5) * in / out - 0.5;
  }
  return 0.0;
}

double GridPosition(const ResizedAxis& axis, std::int64_t i) noexcept {
  const auto in = static_cast<double>(axis.input);
  const double position = GridPosition(axis.grid, in, static_cast<double>(axis.output), static_cast<double>(i));
  return std::clamp(position, 0.0, in - 1.0);
}

Tap TapAt(const ResizedAxis& axis, std::int64_t i) noexcept {
  if (axis.interpolation == Interpolation::NearestFloor) {
    const std::int64_t sample = i * axis.input / axis.output;
    return {sample, sample, 0.0};
  }
  const double position = GridPosition(axis, i);
  const std::int64_t last = axis.input - 1;
  if (axis.interpolation == Interpolation::NearestRounded) {
    const std::int64_t sample = std::min(last, static_cast<std::int64_t>(std::floor(position + 0.5)));
    return {sample, sample, 0.0};
  }
  const auto lower = static_cast<std::int64_t>(std::floor(position));
  return {lower, std::min(last, lower + 1), position - static_cast<double>(lower)};
}

}  // namespace ulmora::engine::program
