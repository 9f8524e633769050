#include "engine/cpu/kernels/winograd/Winograd.h"

#include "engine/cpu/RoundUp.h"
#include "engine/cpu/kernels/InstructionSets.h"
#include "engine/cpu/kernels/Parallel.h"
#include "engine/cpu/kernels/winograd/WinogradVariants.h"

#include <omp.h>

#include <algorithm>

namespace ulmora::engine::cpu {
namespace {

/// What a run of tiles may keep in a core's second-level cache, in floats.
constexpr std::int64_t kCacheFloats = 1024 * 1024 / 4;

}  // namespace

const WinogradKernels* FindWinograd(int lanes) {
#if defined(__x86_64__)
  return ChooseKernels(lanes, kWinogradBaseline, kWinogradAvx2, kWinogradAvx512);
#else
  return ChooseKernels(lanes, kWinogradBaseline);
#endif
}

WinogradPlan::WinogradPlan(const WinogradKernels& kernels, const WinogradTask& shape, int threads)
    : kernels_(kernels),
      inputs_(shape.inputs),
      outputs_(shape.outputs),
      threads_(threads),
      tiles_(shape.images * DivideUp(shape.resultHeight, kWinogradTile) * DivideUp(shape.resultWidth, kWinogradTile)) {
  const std::int64_t rows = kernels.rows;
  const std::int64_t fitting = kCacheFloats / (kWinogradProducts * (inputs_ + outputs_)) / rows;
  const std::int64_t shared = DivideUp(DivideUp(tiles_, threads), rows);
  capacity_ = rows * std::clamp<std::int64_t>(fitting, 1, std::max<std::int64_t>(shared, 1));
  scratch_ = kWinogradProducts * ((inputs_ + outputs_) * capacity_ + 2 * kPlaneGap);
}

std::int64_t WinogradPlan::scratchBytes() const noexcept {
  return threads_ * scratch_ * static_cast<std::int64_t>(sizeof(float));
}

std::int64_t WinogradPlan::packedBytes() const noexcept {
  return kWinogradProducts * inputs_ * outputs_ * static_cast<std::int64_t>(sizeof(float));
}

void WinogradPlan::Pack(const float* weights, float* packed) const {
  const std::int64_t blocks = outputs_ / kernels_.lanes;
  ParallelRanges(blocks * inputs_, packedBytes(), [&](std::int64_t begin, std::int64_t end) {
    for (std::int64_t i = begin; i < end;) {
      const std::int64_t block = i / inputs_;
      const std::int64_t last = std::min(end, (block + 1) * inputs_);
      kernels_.packBlock(weights, outputs_, inputs_, block, i - block * inputs_, last - block * inputs_, packed);
      i = last;
    }
  });
}

void WinogradPlan::Run(const WinogradTask& task, float* scratch) const {
  const std::int64_t runs = DivideUp(tiles_, capacity_);
#pragma omp parallel num_threads(std::min(threads_, omp_get_max_threads()))
  {
    float* mine = scratch + omp_get_thread_num() * scratch_;
    // In turns instead of equal parts: a core that others use, too, takes fewer.
#pragma omp for schedule(dynamic)
    for (std::int64_t run = 0; run < runs; ++run) {
      const std::int64_t first = run * capacity_;
      kernels_.runTiles(task, first, std::min(capacity_, tiles_ - first), capacity_, mine);
    }
  }
}

}  // namespace ulmora::engine::cpu
