#include "engine/cpu/kernels/Normalize.h"

#include <algorithm>
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

/// The arguments of ApplyAffine.
struct AffineTask {
  ReduceView view;
  const float* source;
  const float* scale;
  const float* shift;
  const float* gamma;
  const float* beta;
  float* result;
};

/// Rows [begin, end) of [outer * count, inner].
void ApplyToRows(const AffineTask& task, std::int64_t begin, std::int64_t end) {
  const std::int64_t inner = task.view.inner;
  for (std::int64_t row = begin; row < end; ++row) {
    const float* from = task.source + row * inner;
    float* to = task.result + row * inner;
    const float* a = task.scale + row / task.view.count * inner;
    const float* b = task.shift + row / task.view.count * inner;
    const std::int64_t middle = row % task.view.count;
    const float factor = task.gamma != nullptr ? task.gamma[middle] : 1.0F;
    const float summand = task.gamma != nullptr ? task.beta[middle] : 0.0F;
#pragma omp simd
    for (std::int64_t i = 0; i < inner; ++i) to[i] = (from[i] * a[i] + b[i]) * factor + summand;
  }
}

/// Elements [begin, end) of [outer, count] where inner is 1, line by line.
void ApplyToLines(const AffineTask& task, std::int64_t begin, std::int64_t end) {
  const std::int64_t count = task.view.count;
  while (begin < end) {
    const std::int64_t line = begin / count;
    const std::int64_t first = begin % count;
    const std::int64_t last = std::min(count, first + end - begin);
    const float* from = task.source + line * count;
    float* to = task.result + line * count;
    const float a = task.scale[line];
    const float b = task.shift[line];
    if (task.gamma == nullptr) {
#pragma omp simd
      for (std::int64_t i = first; i < last; ++i) to[i] = from[i] * a + b;
    } else {
#pragma omp simd
      for (std::int64_t i = first; i < last; ++i) to[i] = (from[i] * a + b) * task.gamma[i] + task.beta[i];
    }
    begin += last - first;
  }
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
  const AffineTask task{view, source, scale, shift, gamma, beta, result};
  ParallelRanges(view.outer * view.count, BytesOf(view), [&](std::int64_t begin, std::int64_t end) {
    if (view.inner == 1) {
      ApplyToLines(task, begin, end);
    } else {
      ApplyToRows(task, begin, end);
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
