#pragma once
// One value from many: reductions of [outer, count, inner] along the middle.

#include "engine/cpu/RoundUp.h"
#include "engine/cpu/kernels/Parallel.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace ulmora::engine::cpu {

/// A tensor seen as [outer, count, inner], dense, to be reduced to [outer, inner].
struct ReduceView {
  std::int64_t outer = 1;
  std::int64_t count = 1;
  std::int64_t inner = 1;
};

/// Reduces in double: State Accumulator::Start(), Accumulator::Add(State&, float), Accumulator::Merge(State&, State).
/// The middle is cut into chunks where there is too little beside it to keep the threads busy; where it is cut does not
/// depend on their number, so neither does the result.
template <typename Accumulator>
class Reducer {
 public:
  using State = typename Accumulator::State;

  explicit Reducer(ReduceView view) : view_(view) {
    constexpr std::int64_t kEnoughTasks = 64;
    constexpr std::int64_t kShortChunk = 256;
    const std::int64_t wanted = kEnoughTasks / std::max<std::int64_t>(Tasks(), 1);
    chunks_ = std::clamp<std::int64_t>(std::min(wanted, view.count / kShortChunk), 1, kEnoughTasks);
  }

  /// Bytes of memory that Run needs for partial results.
  [[nodiscard]] std::int64_t ScratchBytes() const {
    return chunks_ * view_.outer * view_.inner * static_cast<std::int64_t>(sizeof(State));
  }

  /// Calls finish(index in [outer, inner], State) for every result.
  template <typename Finish>
  void Run(const float* source, void* scratch, const Finish& finish) const {
    auto* partial = static_cast<State*>(scratch);
    const std::int64_t results = view_.outer * view_.inner;
    const std::int64_t bytes = results * view_.count * static_cast<std::int64_t>(sizeof(float));
    ParallelRanges(Tasks() * chunks_, bytes, [&](std::int64_t begin, std::int64_t end) {
      for (std::int64_t task = begin; task < end; ++task) RunTask(source, partial, task);
    });
    ParallelRanges(results, results * chunks_ * static_cast<std::int64_t>(sizeof(State)),
                   [&](std::int64_t begin, std::int64_t end) {
                     for (std::int64_t i = begin; i < end; ++i) {
                       State state = partial[i];
                       for (std::int64_t chunk = 1; chunk < chunks_; ++chunk) {
                         Accumulator::Merge(state, partial[chunk * results + i]);
                       }
                       finish(i, state);
                     }
                   });
  }

 private:
  /// Neighbouring results that are accumulated side by side.
  static constexpr std::int64_t kLanes = 32;

  [[nodiscard]] std::int64_t Tiles() const { return DivideUp(view_.inner, kLanes); }
  [[nodiscard]] std::int64_t Tasks() const { return view_.outer * Tiles(); }

  void RunTask(const float* source, State* partial, std::int64_t task) const {
    const std::int64_t chunk = task / Tasks();
    const std::int64_t outer = task % Tasks() / Tiles();
    const std::int64_t lane = task % Tiles() * kLanes;
    const std::int64_t begin = view_.count * chunk / chunks_;
    const std::int64_t end = view_.count * (chunk + 1) / chunks_;
    State* to = partial + (chunk * view_.outer + outer) * view_.inner + lane;
    const float* from = source + (outer * view_.count + begin) * view_.inner + lane;
    if (view_.inner == 1) {
      *to = Line(from, end - begin);
      return;
    }
    const std::int64_t lanes = std::min(kLanes, view_.inner - lane);
    std::array<State, kLanes> states;
    states.fill(Accumulator::Start());
    for (std::int64_t i = begin; i < end; ++i, from += view_.inner) {
      for (std::int64_t k = 0; k < lanes; ++k) Accumulator::Add(states[static_cast<std::size_t>(k)], from[k]);
    }
    std::copy_n(states.begin(), lanes, to);
  }

  /// Consecutive elements, in several sums at once: one alone would wait for itself at every addition.
  static State Line(const float* from, std::int64_t count) {
    constexpr std::int64_t kSums = 8;
    std::array<State, kSums> states;
    states.fill(Accumulator::Start());
    const std::int64_t whole = count / kSums * kSums;
    for (std::int64_t i = 0; i < whole; i += kSums) {
      for (std::int64_t k = 0; k < kSums; ++k) Accumulator::Add(states[static_cast<std::size_t>(k)], from[i + k]);
    }
    for (std::int64_t i = whole; i < count; ++i) Accumulator::Add(states[0], from[i]);
    for (std::size_t k = 1; k < kSums; ++k) Accumulator::Merge(states[0], states[k]);
    return states[0];
  }

  ReduceView view_;
  std::int64_t chunks_ = 1;
};

}  // namespace ulmora::engine::cpu
