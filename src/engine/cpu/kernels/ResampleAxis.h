#pragma once
// Linear interpolation along one dimension.

#include <cstdint>
#include <vector>

namespace ulmora::engine::cpu {

/// What an output sample is made of: input[lower] * (1 - weight) + input[upper] * weight.
struct ResampleTap {
  std::int64_t lower = 0;
  std::int64_t upper = 0;
  float weight = 0.0F;
};

/// From [outer, inputs, inner] to [outer, taps, inner], both dense.
class ResampleAxis {
 public:
  ResampleAxis(std::int64_t outer, std::int64_t inputs, std::int64_t inner, std::vector<ResampleTap> taps);

  void Run(const float* source, float* destination) const;

 private:
  void Rows(const float* source, float* destination, std::int64_t begin, std::int64_t end) const;
  void Lines(const float* source, float* destination, std::int64_t begin, std::int64_t end) const;

  std::int64_t outer_;
  std::int64_t inputs_;
  std::int64_t inner_;
  std::vector<ResampleTap> taps_;
};

}  // namespace ulmora::engine::cpu
