#include "engine/cpu/kernels/pixels/Pixels.h"

#include "engine/cpu/RoundUp.h"
#include "engine/cpu/kernels/InstructionSets.h"
#include "engine/cpu/kernels/pixels/PixelVariants.h"

#include <omp.h>

#include <algorithm>

namespace ulmora::engine::cpu {
namespace {

/// What a run may keep in a core's second-level cache, in floats.
constexpr std::int64_t kCacheFloats = 512 * 1024 / 4;

/// Longer runs gain nothing; shorter ones read the weights anew for too few pixels.
constexpr std::int64_t kMostRows = 24;
constexpr std::int64_t kFewestRows = 6;

}  // namespace

const PixelKernels* FindPixelKernels(int lanes) {
#if defined(__x86_64__)
  return ChooseKernels(lanes, kPixelsBaseline, kPixelsAvx2, kPixelsAvx512);
#else
  return ChooseKernels(lanes, kPixelsBaseline);
#endif
}

PixelPlan::PixelPlan(const PixelKernels& kernels, std::int64_t images, std::int64_t pixels, std::int64_t channels,
                     int threads)
    : kernels_(kernels), images_(images), pixels_(pixels), channels_(channels), threads_(threads) {
  const std::int64_t rows = kernels.rows;
  const std::int64_t fitting = std::clamp(kCacheFloats / channels / rows, kFewestRows, kMostRows);
  const std::int64_t shared = DivideUp(DivideUp(images * pixels, threads), rows);
  capacity_ = rows * std::clamp<std::int64_t>(fitting, 1, std::max<std::int64_t>(shared, 1));
}

std::int64_t PixelPlan::scratchBytes() const noexcept {
  return threads_ * channels_ * capacity_ * static_cast<std::int64_t>(sizeof(float));
}

void PixelPlan::Run(const PixelStep* steps, std::size_t count, float* scratch) const {
  const std::int64_t runs = DivideUp(pixels_, capacity_);
#pragma omp parallel num_threads(std::min(threads_, omp_get_max_threads()))
  {
    float* mine = scratch + omp_get_thread_num() * channels_ * capacity_;
    // In turns instead of equal parts: a core that others use, too, takes fewer.
#pragma omp for schedule(dynamic)
    for (std::int64_t i = 0; i < images_ * runs; ++i) {
      const std::int64_t first = i % runs * capacity_;
      kernels_.run({i / runs, first, std::min(capacity_, pixels_ - first), capacity_, mine}, steps, count);
    }
  }
}

}  // namespace ulmora::engine::cpu
