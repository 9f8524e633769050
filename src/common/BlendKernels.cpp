#include "common/BlendKernels.h"

#include <opencv2/core.hpp>

#include <cmath>

// The bodies are inlined into functions for different processors, which makes the compiler vectorize them for each.
#define LUMVANE_INLINE [[gnu::always_inline]] inline

namespace ulmora {
namespace {

struct PlainProduct {
  LUMVANE_INLINE static float Of(float sample, float weight) { return sample * weight + 0.0f; }
};

struct FusedProduct {
  LUMVANE_INLINE static float Of(float sample, float weight) { return std::fmaf(sample, weight, 0.0f); }
};

LUMVANE_INLINE void FillWeightsBody(const double* ramp, double factor, float* weights, std::size_t count) {
#pragma omp simd
  for (std::size_t i = 0; i < count; ++i) weights[i] = static_cast<float>(ramp[i] * factor);
}

template <typename Product>
LUMVANE_INLINE void ApplyWeightsBody(float* samples, const float* weights, std::size_t count) {
#pragma omp simd
  for (std::size_t i = 0; i < count; ++i) {
    const float sample = samples[i];
    const float weight = weights[i];
    const float product = Product::Of(sample, weight);
    samples[i] = weight == 1.0f ? sample : product;
  }
}

#if defined(__aarch64__)
// OpenCV's NEON code fuses, and every processor of this architecture has the instruction.
using BaselineProduct = FusedProduct;
#else
using BaselineProduct = PlainProduct;
#endif

void FillWeights(const double* ramp, double factor, float* weights, std::size_t count) {
  FillWeightsBody(ramp, factor, weights, count);
}

void ApplyWeights(float* samples, const float* weights, std::size_t count) {
  ApplyWeightsBody<BaselineProduct>(samples, weights, count);
}

#if defined(__x86_64__)
[[gnu::target("avx2,fma")]] void FillWeightsAvx2(const double* ramp, double factor, float* weights, std::size_t count) {
  FillWeightsBody(ramp, factor, weights, count);
}

[[gnu::target("avx2,fma")]] void ApplyWeightsAvx2(float* samples, const float* weights, std::size_t count) {
  ApplyWeightsBody<FusedProduct>(samples, weights, count);
}
#endif

}  // namespace

BlendKernels SelectBlendKernels() {
#if defined(__x86_64__)
  // The condition of OpenCV's own dispatch. A fused product that underflows keeps the sign that an unfused one loses.
  if (cv::checkHardwareSupport(CV_CPU_AVX2)) return {FillWeightsAvx2, ApplyWeightsAvx2};
#endif
  return {FillWeights, ApplyWeights};
}

}  // namespace ulmora
