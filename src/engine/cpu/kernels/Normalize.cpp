#include "engine/cpu/kernels/Normalize.h"

#include <cmath>

namespace ulmora::engine::cpu {
namespace {

std::int64_t BytesOf(const ReduceView& view) {
  return 2 * view.outer * view.count * view.inner * static_cast<std::int64_t>(sizeof(float));
}

void NormalizeLine(const float* from, std::int64_t count, float epsilon, const float* gamma, const float* beta,
                   float* to) {
  float sum = 0.0F;
#pragma omp simd reduction(+ : sum)
  for (std::int64_t i = 0; i < count; ++i) sum += from[i];
  const float mean = sum / static_cast<float>(count);
  // About the mean: a single pass in float would lose the variance of a line far from zero.
  float squares = 0.0F;
#pragma omp simd reduction(+ : squares)
  for (std::int64_t i = 0; i < count; ++i) squares += (from[i] - mean) * (from[i] - mean);
  const float scale = 1.0F / std::sqrt(squares / static_cast<float>(count) + epsilon);
#pragma omp simd
  for (std::int64_t i = 0; i < count; ++i) to[i] = (from[i] - mean) * scale * gamma[i] + beta[i];
}

}  // namespace

Affine AffineOf(const Moments::State& moments, std::int64_t count, double epsilon, float gamma, float beta) {
  const double n = static_cast<double>(count);
  const double mean = moments.sum / n;
  const double variance = std::max(0.0, moments.squares / n - mean * mean);
  const double scale = static_cast<double>(gamma) / std::sqrt(variance + epsilon);
  return {static_cast<float>(scale), static_cast<float>(static_cast<double>(beta) - mean * scale)};
}

void ApplyAffine(const ReduceView& view, const float* source, const float* scale, const float* shift,
                 const float* gamma, const float* beta, float* result) {
  ParallelRanges(view.outer * view.count, BytesOf(view), [&](std::int64_t begin, std::int64_t end) {
    for (std::int64_t row = begin; row < end; ++row) {
      const float* from = source + row * view.inner;
      float* to = result + row * view.inner;
      const float* a = scale + row / view.count * view.inner;
      const float* b = shift + row / view.count * view.inner;
      const std::int64_t middle = row % view.count;
      const float factor = gamma != nullptr ? gamma[middle] : 1.0F;
      const float summand = gamma != nullptr ? beta[middle] : 0.0F;
#pragma omp simd
      for (std::int64_t i = 0; i < view.inner; ++i) to[i] = (from[i] * a[i] + b[i]) * factor + summand;
    }
  });
}

void NormalizeLines(const ReduceView& view, const float* source, float epsilon, const float* gamma, const float* beta,
                    float* result) {
  ParallelRanges(view.outer, BytesOf(view), [&](std::int64_t begin, std::int64_t end) {
    for (std::int64_t line = begin; line < end; ++line) {
      NormalizeLine(source + line * view.count, view.count, epsilon, gamma, beta, result + line * view.count);
    }
  });
}

}  // namespace ulmora::engine::cpu
