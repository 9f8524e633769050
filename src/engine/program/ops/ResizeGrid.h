#pragma once
// Where the samples of a resized axis are taken, for the shape rule, the evaluation and the lowering of the upsample
// and resize operations. Each of them resamples its axes one after another, in any order.

#include "engine/program/OpCall.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ulmora::engine::program {

/// Position, in input samples, of output sample i of an axis with `in` input and `out` output samples. All are then
/// clamped to [0, in - 1]; where a formula divides by zero (out = 1), the position is 0.
enum class SamplingGrid : std::uint8_t {
  Default,             ///< i * in / out
  StrictAlignCorners,  ///< i * (in - 1) / (out - 1)
  AlignCorners,        ///< the same; out = 1 is (in - 1) / 2
  OffsetCorners,       ///< (i + 0.5) * max(1, in - 1) / out
  UnalignCorners,      ///< (i + 0.5) * in / out - 0.5
};

enum class Interpolation : std::uint8_t {
  Linear,
  NearestRounded,  ///< sample floor(position + 0.5)
  NearestFloor,    ///< sample floor(position), in exact arithmetic; the grid is Default
};

/// One axis that changes its size. Input and output are at least 1.
struct ResizedAxis {
  std::size_t axis = 0;
  std::int64_t input = 1;
  std::int64_t output = 1;
  SamplingGrid grid = SamplingGrid::Default;
  Interpolation interpolation = Interpolation::Linear;
};

/// An output sample is input[lower] * (1 - weight) + input[upper] * weight, weight in [0, 1).
struct Tap {
  std::int64_t lower = 0;
  std::int64_t upper = 0;
  double weight = 0.0;
};

/// The parameter sampling_mode of a call.
[[nodiscard]] SamplingGrid GridOf(const OpCall& call);

/// The resized axes of a call of upsample_nearest_neighbor, upsample_bilinear, resize_nearest_neighbor, resize_bilinear
/// or resize, outermost first. Fails on impossible operands.
[[nodiscard]] std::vector<ResizedAxis> ResizedAxes(const OpCall& call);

/// Position of sample i of `out` that cover `in` input samples, not clamped. `in` may be any number where a part of an
/// axis is sampled that does not begin and end at samples.
[[nodiscard]] double GridPosition(SamplingGrid grid, double in, double out, double i) noexcept;

/// Position of output sample i, clamped.
[[nodiscard]] double GridPosition(const ResizedAxis& axis, std::int64_t i) noexcept;

/// What output sample i is made of; for the nearest kinds, weight is 0 and upper equals lower.
[[nodiscard]] Tap TapAt(const ResizedAxis& axis, std::int64_t i) noexcept;

}  // namespace ulmora::engine::program
