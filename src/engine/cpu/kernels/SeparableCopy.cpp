#include "engine/cpu/kernels/SeparableCopy.h"

#include "engine/cpu/kernels/Parallel.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

/// More loops than any tensor has dimensions, blocked channels counted twice.
constexpr std::size_t kMaxLoops = 10;

/// Rows longer than this are not merged further: enough to copy at full speed, and enough rows left for the threads.
constexpr std::int64_t kLongRow = 4096;

std::int64_t Count(const CopyLoop& loop) {
  return static_cast<std::int64_t>(loop.sources.size());
}

bool IsOne(const CopyLoop& loop) {
  return loop.sources.size() == 1 && loop.sources.front() == 0;
}

/// The position of one row among the outer loops, with its offsets.
class Position {
 public:
  Position(const std::vector<CopyLoop>& loops, std::int64_t row) : loops_(loops) {
    for (std::size_t i = loops.size(); i-- > 0;) {
      at_[i] = row % Count(loops[i]);
      row /= Count(loops[i]);
    }
  }

  void Next() {
    for (std::size_t i = loops_.size(); i-- > 0;) {
      if (++at_[i] < Count(loops_[i])) return;
      at_[i] = 0;
    }
  }

  [[nodiscard]] std::int64_t Destination() const {
    std::int64_t offset = 0;
    for (std::size_t i = 0; i < loops_.size(); ++i) offset += at_[i] * loops_[i].stride;
    return offset;
  }

  /// kFiller if any loop has no source here.
  [[nodiscard]] std::int64_t Source() const {
    std::int64_t offset = 0;
    for (std::size_t i = 0; i < loops_.size(); ++i) {
      const std::int64_t share = loops_[i].sources[static_cast<std::size_t>(at_[i])];
      if (share == kFiller) return kFiller;
      offset += share;
    }
    return offset;
  }

 private:
  const std::vector<CopyLoop>& loops_;
  std::array<std::int64_t, kMaxLoops> at_{};
};

}  // namespace

SeparableCopy::SeparableCopy(std::vector<CopyLoop> loops, std::int64_t elementBytes)
    : loops_(std::move(loops)), elementBytes_(elementBytes) {
  std::erase_if(loops_, IsOne);
  if (loops_.empty()) loops_.push_back({1, {0}});
  inner_ = std::move(loops_.back());
  loops_.pop_back();
  MergeInwards();
  FindStretches();
  for (const CopyLoop& loop : loops_) rows_ *= Count(loop);
}

void SeparableCopy::MergeInwards() {
  while (!loops_.empty() && Count(inner_) < kLongRow) {
    const CopyLoop& outer = loops_.back();
    const std::int64_t count = Count(inner_);
    if (outer.stride != count * inner_.stride) return;
    CopyLoop merged{inner_.stride, {}};
    merged.sources.reserve(static_cast<std::size_t>(count) * outer.sources.size());
    for (const std::int64_t a : outer.sources) {
      for (const std::int64_t b : inner_.sources)
        merged.sources.push_back(a == kFiller || b == kFiller ? kFiller : a + b);
    }
    inner_ = std::move(merged);
    loops_.pop_back();
  }
}

void SeparableCopy::FindStretches() {
  constexpr std::int64_t kWorthwhile = 4;
  bool hasFiller = false;
  for (std::int64_t i = 0; i < Count(inner_); ++i) {
    const std::int64_t source = inner_.sources[static_cast<std::size_t>(i)];
    hasFiller = hasFiller || source == kFiller;
    if (!stretches_.empty()) {
      Stretch& last = stretches_.back();
      const bool continues =
          source == kFiller ? last.source == kFiller : last.source != kFiller && source == last.source + last.count;
      if (continues) {
        ++last.count;
        continue;
      }
    }
    stretches_.push_back({i, 1, source});
  }
  const bool areShort = Count(inner_) < kWorthwhile * static_cast<std::int64_t>(stretches_.size());
  if (areShort && !hasFiller) stretches_.clear();
}

void SeparableCopy::Run(const void* source, void* destination, const void* filler) const {
  if (elementBytes_ == 1) {
    RunAs(static_cast<const std::uint8_t*>(source), static_cast<std::uint8_t*>(destination),
          *static_cast<const std::uint8_t*>(filler));
  } else {
    // Floats and integers move alike; as floats, whatever bits they have.
    RunAs(static_cast<const float*>(source), static_cast<float*>(destination), *static_cast<const float*>(filler));
  }
}

template <typename T>
void SeparableCopy::RunAs(const T* source, T* destination, T filler) const {
  ParallelRanges(rows_, 2 * rows_ * Count(inner_) * elementBytes_, [&](std::int64_t begin, std::int64_t end) {
    Position position(loops_, begin);
    for (std::int64_t row = begin; row < end; ++row, position.Next()) {
      const std::int64_t offset = position.Source();
      T* to = destination + position.Destination();
      if (offset == kFiller) {
        FillRow(to, filler);
      } else {
        Row(source + offset, to, filler);
      }
    }
  });
}

template <typename T>
void SeparableCopy::Row(const T* source, T* destination, T filler) const {
  const std::int64_t stride = inner_.stride;
  const std::int64_t* sources = inner_.sources.data();
  if (stretches_.empty() || stride != 1) {
    for (std::int64_t i = 0; i < Count(inner_); ++i) {
      destination[i * stride] = sources[i] == kFiller ? filler : source[sources[i]];
    }
    return;
  }
  for (const Stretch& stretch : stretches_) {
    T* to = destination + stretch.destination;
    if (stretch.source == kFiller) {
      std::fill_n(to, stretch.count, filler);
    } else {
      std::copy_n(source + stretch.source, stretch.count, to);
    }
  }
}

template <typename T>
void SeparableCopy::FillRow(T* destination, T filler) const {
  for (std::int64_t i = 0; i < Count(inner_); ++i) destination[i * inner_.stride] = filler;
}

}  // namespace ulmora::engine::cpu
