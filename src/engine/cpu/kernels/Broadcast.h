#pragma once
// Elementwise functions of two or three tensors that repeat each other's elements along some dimensions.

#include "engine/cpu/kernels/Parallel.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace ulmora::engine::cpu {

/// Loops over a dense result, outermost first, and how far each of kCount operands moves per iteration of each.
template <std::size_t kCount>
struct BroadcastLoops {
  std::vector<std::int64_t> counts;
  std::vector<std::array<std::int64_t, kCount>> strides;

  /// Joins neighbouring loops that every operand runs through as through one, and drops those of one iteration: the
  /// fewer and longer loops, the less there is to do between elements.
  void Merge() {
    BroadcastLoops merged;
    for (std::size_t i = 0; i < counts.size(); ++i) {
      if (counts[i] == 1) continue;
      if (!merged.counts.empty() && IsOneRun(merged.strides.back(), strides[i], counts[i])) {
        merged.counts.back() *= counts[i];
        merged.strides.back() = strides[i];
      } else {
        merged.counts.push_back(counts[i]);
        merged.strides.push_back(strides[i]);
      }
    }
    if (merged.counts.empty()) {
      merged.counts.push_back(1);
      merged.strides.push_back({});
    }
    *this = std::move(merged);
  }

 private:
  static bool IsOneRun(const std::array<std::int64_t, kCount>& outer, const std::array<std::int64_t, kCount>& inner,
                       std::int64_t innerCount) {
    for (std::size_t k = 0; k < kCount; ++k) {
      if (outer[k] != inner[k] * innerCount) return false;
    }
    return true;
  }
};

/// result[i] = function(a[i], b[i], ...). The result may lie over an operand that moves with it.
template <typename Function, typename Out, typename... In>
class BroadcastKernel {
 public:
  static constexpr std::size_t kCount = sizeof...(In);

  BroadcastKernel(Function function, BroadcastLoops<kCount> loops) : function_(function), loops_(std::move(loops)) {
    loops_.Merge();
    for (std::size_t i = 0; i + 1 < loops_.counts.size(); ++i) rows_ *= loops_.counts[i];
  }

  void Run(Out* result, const In*... operands) const {
    const std::int64_t inner = loops_.counts.back();
    constexpr std::int64_t kTouched = sizeof(Out) + (sizeof(In) + ...);
    if (rows_ == 1) {
      ParallelRanges(inner, inner * kTouched,
                     [&](std::int64_t begin, std::int64_t end) { Row(begin, end, result, operands...); });
      return;
    }
    ParallelRanges(rows_, rows_ * inner * kTouched, [&](std::int64_t begin, std::int64_t end) {
      for (std::int64_t row = begin; row < end; ++row) {
        const std::array<std::int64_t, kCount> offsets = OffsetsOf(row);
        RowAt(offsets, std::make_index_sequence<kCount>{}, inner, result + row * inner, operands...);
      }
    });
  }

 private:
  [[nodiscard]] std::array<std::int64_t, kCount> OffsetsOf(std::int64_t row) const {
    std::array<std::int64_t, kCount> offsets{};
    for (std::size_t i = loops_.counts.size() - 1; i-- > 0;) {
      const std::int64_t at = row % loops_.counts[i];
      row /= loops_.counts[i];
      for (std::size_t k = 0; k < kCount; ++k) offsets[k] += at * loops_.strides[i][k];
    }
    return offsets;
  }

  template <std::size_t... kIndex>
  void RowAt(const std::array<std::int64_t, kCount>& offsets, std::index_sequence<kIndex...>, std::int64_t inner,
             Out* result, const In*... operands) const {
    Row(0, inner, result, operands + offsets[kIndex]...);
  }

  /// Elements begin to end of a row. Every operand moves or stands still, as a rule; then the loop has no strides in
  /// it.
  void Row(std::int64_t begin, std::int64_t end, Out* result, const In*... operands) const {
    const std::array<std::int64_t, kCount>& strides = loops_.strides.back();
    if constexpr (kCount == 2) {
      if (strides[0] == 1 && strides[1] == 1) return Loop<1, 1>(begin, end, result, operands...);
      if (strides[0] == 1 && strides[1] == 0) return Loop<1, 0>(begin, end, result, operands...);
      if (strides[0] == 0 && strides[1] == 1) return Loop<0, 1>(begin, end, result, operands...);
    }
    if constexpr (kCount == 3) {
      if (strides[0] == 1 && strides[1] == 1 && strides[2] == 1) return Loop<1, 1, 1>(begin, end, result, operands...);
      if (strides[0] == 1 && strides[1] == 0 && strides[2] == 0) return Loop<1, 0, 0>(begin, end, result, operands...);
    }
    General(begin, end, std::make_index_sequence<kCount>{}, result, operands...);
  }

  template <std::int64_t... kStride>
  void Loop(std::int64_t begin, std::int64_t end, Out* result, const In*... operands) const {
#pragma omp simd
    for (std::int64_t i = begin; i < end; ++i) result[i] = function_(operands[i * kStride]...);
  }

  template <std::size_t... kIndex>
  void General(std::int64_t begin, std::int64_t end, std::index_sequence<kIndex...>, Out* result,
               const In*... operands) const {
    const std::array<std::int64_t, kCount>& strides = loops_.strides.back();
    for (std::int64_t i = begin; i < end; ++i) result[i] = function_(operands[i * strides[kIndex]]...);
  }

  Function function_;
  BroadcastLoops<kCount> loops_;
  std::int64_t rows_ = 1;
};

}  // namespace ulmora::engine::cpu
