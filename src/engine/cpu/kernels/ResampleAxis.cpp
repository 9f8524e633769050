#include "engine/cpu/kernels/ResampleAxis.h"

#include "engine/cpu/kernels/Parallel.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace ulmora::engine::cpu {

ResampleAxis::ResampleAxis(std::int64_t outer, std::int64_t inputs, std::int64_t inner, std::vector<ResampleTap> taps)
    : outer_(outer), inputs_(inputs), inner_(inner), taps_(std::move(taps)) {}

void ResampleAxis::Run(const float* source, float* destination) const {
  const auto outputs = static_cast<std::int64_t>(taps_.size());
  const std::int64_t bytes = outer_ * (inputs_ + outputs) * inner_ * static_cast<std::int64_t>(sizeof(float));
  if (inner_ == 1) {
    ParallelRanges(outer_, bytes,
                   [&](std::int64_t begin, std::int64_t end) { Lines(source, destination, begin, end); });
  } else {
    ParallelRanges(outer_ * outputs, bytes,
                   [&](std::int64_t begin, std::int64_t end) { Rows(source, destination, begin, end); });
  }
}

void ResampleAxis::Rows(const float* source, float* destination, std::int64_t begin, std::int64_t end) const {
  const auto outputs = static_cast<std::int64_t>(taps_.size());
  for (std::int64_t row = begin; row < end; ++row) {
    const ResampleTap& tap = taps_[static_cast<std::size_t>(row % outputs)];
    const float* plane = source + row / outputs * inputs_ * inner_;
    const float* a = plane + tap.lower * inner_;
    const float* b = plane + tap.upper * inner_;
    float* to = destination + row * inner_;
    const float weight = tap.weight;
    // Where the sample is one of the source's, infinity or NaN beside it must not leak into it.
    if (weight == 0.0F) {
      std::copy_n(a, inner_, to);
      continue;
    }
#pragma omp simd
    for (std::int64_t i = 0; i < inner_; ++i) to[i] = a[i] + (b[i] - a[i]) * weight;
  }
}

void ResampleAxis::Lines(const float* source, float* destination, std::int64_t begin, std::int64_t end) const {
  const auto outputs = static_cast<std::int64_t>(taps_.size());
  for (std::int64_t line = begin; line < end; ++line) {
    const float* from = source + line * inputs_;
    float* to = destination + line * outputs;
    for (std::size_t i = 0; i < taps_.size(); ++i) {
      const ResampleTap& tap = taps_[i];
      const float a = from[tap.lower];
      to[i] = tap.weight == 0.0F ? a : a + (from[tap.upper] - a) * tap.weight;
    }
  }
}

}  // namespace ulmora::engine::cpu
