#pragma once
// The two inner loops of tile blending, in the fastest form that this processor runs.

#include <cstddef>

namespace ulmora {

/// Writes `count` weights: each the double product of a ramp value and `factor`, narrowed to float.
using FillWeightsKernel = void (*)(const double* ramp, double factor, float* weights, std::size_t count);

/// Scales `count` samples in place, each by its weight, to exactly the bits that cv::Mat::convertTo(-1, weight, 0)
/// gives on this processor: a product plus +0.0, fused if OpenCV fuses it, and the sample itself for a weight of 1.
using ApplyWeightsKernel = void (*)(float* samples, const float* weights, std::size_t count);

struct BlendKernels {
  FillWeightsKernel fillWeights;
  ApplyWeightsKernel applyWeights;
};

/// The kernels that match the code paths that OpenCV takes, which depend on the processor and on OPENCV_CPU_DISABLE.
[[nodiscard]] BlendKernels SelectBlendKernels();

}  // namespace ulmora
