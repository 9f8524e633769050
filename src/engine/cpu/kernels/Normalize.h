#pragma once
// Normalisation to zero mean and unit variance along the middle of [outer, count, inner].

#include "engine/cpu/kernels/Reduce.h"

#include <cstdint>

namespace ulmora::engine::cpu {

/// Sum and sum of squares; in double, their difference keeps enough digits.
struct Moments {
  struct State {
    double sum;
    double squares;
  };
  static State Start() { return {0.0, 0.0}; }
  static void Add(State& state, float value) {
    const auto wide = static_cast<double>(value);
    state.sum += wide;
    state.squares += wide * wide;
  }
  static void Merge(State& state, const State& other) {
    state.sum += other.sum;
    state.squares += other.squares;
  }
};

/// Factor and summand that normalise an element: x * scale + shift.
struct Affine {
  float scale = 1.0F;
  float shift = 0.0F;
};

/// Of `count` elements with these moments: (x - mean) / sqrt(variance + epsilon), biased variance, then * gamma + beta.
[[nodiscard]] Affine AffineOf(const Moments::State& moments, std::int64_t count, double epsilon, float gamma,
                              float beta);

/// result = x * scale + shift with a pair for each [outer, inner], given as two dense arrays; then, if gamma is not
/// null, * gamma[i] + beta[i] for index i along the middle. The result may be the source.
void ApplyAffine(const ReduceView& view, const float* source, const float* scale, const float* shift,
                 const float* gamma, const float* beta, float* result);

/// The whole of a normalisation where inner is 1 and count is small: each line is read once. gamma and beta have one
/// element for each of the line.
void NormalizeLines(const ReduceView& view, const float* source, float epsilon, const float* gamma, const float* beta,
                    float* result);

}  // namespace ulmora::engine::cpu
