#pragma once
// Moves elements: every element of the result comes from one place in the source, or is a filler, and the place is a
// sum of one offset per loop. Slices, pads, tiles, nearest resampling, concatenation and pixel shuffles all are that.

#include <cstdint>
#include <limits>
#include <vector>

namespace ulmora::engine::cpu {

/// Offset of an element that has no source.
inline constexpr std::int64_t kFiller = std::numeric_limits<std::int64_t>::min();

/// One loop over the destination, in the order of memory.
struct CopyLoop {
  std::int64_t stride = 1;            ///< elements between its iterations in the destination
  std::vector<std::int64_t> sources;  ///< for each iteration its share of the source's offset, or kFiller
};

/// A prepared copy. Source and destination must not overlap.
class SeparableCopy {
 public:
  /// Loops from the outermost inwards; elements of 4 bytes or of 1.
  SeparableCopy(std::vector<CopyLoop> loops, std::int64_t elementBytes);

  /// `filler` points at one element.
  void Run(const void* source, void* destination, const void* filler) const;

 private:
  /// A stretch of the innermost loop whose sources are consecutive, or that has none.
  struct Stretch {
    std::int64_t destination = 0;
    std::int64_t count = 0;
    std::int64_t source = 0;
  };

  void MergeInwards();
  void FindStretches();
  template <typename T>
  void RunAs(const T* source, T* destination, T filler) const;
  template <typename T>
  void Row(const T* source, T* destination, T filler) const;
  template <typename T>
  void FillRow(T* destination, T filler) const;

  std::vector<CopyLoop> loops_;  ///< the outer ones
  CopyLoop inner_;
  std::vector<Stretch> stretches_;  ///< empty if they are too short to be worth it
  std::int64_t rows_ = 1;
  std::int64_t elementBytes_;
};

}  // namespace ulmora::engine::cpu
