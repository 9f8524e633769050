#pragma once
// Operations that only move elements, in terms of which index of the source each index of the result stands for.

#include "engine/cpu/Lowering.h"
#include "engine/cpu/kernels/SeparableCopy.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace ulmora::engine::cpu {

/// What the index along one dimension of the result adds to the source's index along `axis`; kFiller where the result
/// has no source.
struct Share {
  std::size_t axis = 0;
  std::vector<std::int64_t> indices;
};

/// A result whose element at (i, j, ...) is the source's at base + the sum of the shares of i, j, ...
struct Move {
  Shape source;
  Shape result;
  std::vector<std::int64_t> base;          ///< by dimension of the source
  std::vector<std::vector<Share>> shares;  ///< by dimension of the result

  /// Every dimension of the result stands still.
  Move(Shape from, Shape to)
      : source(std::move(from)), result(std::move(to)), base(source.size(), 0), shares(result.size()) {}

  /// index(i) is what index i along `axis` of the result adds along `sourceAxis`.
  template <typename Index>
  void Add(std::size_t axis, std::size_t sourceAxis, const Index& index) {
    Share share{sourceAxis, {}};
    for (std::int64_t i = 0; i < result[axis]; ++i) share.indices.push_back(index(i));
    shares[axis].push_back(std::move(share));
  }
  /// The dimension is the same in both.
  void Keep(std::size_t axis, std::size_t sourceAxis) {
    Add(axis, sourceAxis, [](std::int64_t i) { return i; });
  }
};

/// A move between two layouts as loops over the result's memory.
struct MoveLoops {
  std::vector<CopyLoop> loops;
  std::int64_t base = 0;     ///< offset in the source
  bool isRange = false;      ///< the result's elements are consecutive in the source
  std::int64_t start = 0;    ///< then: offset of the first
  bool isContiguous = true;  ///< the innermost loop reads consecutive elements
};

/// None if blocks of channels stand in the way.
[[nodiscard]] std::optional<MoveLoops> LoopsOf(const Move& move, Layout source, Layout result);

/// Forms of an operation whose results, one for each move, are moved out of `source`: copies between all layouts, or
/// nothing at all where the bytes are consecutive ones of the source. Any kind of elements; `filler` has those bytes.
[[nodiscard]] std::vector<Form> MoveForms(const LowerCall& call, program::ValueId source, std::vector<Move> moves,
                                          std::array<char, 4> filler = {});

/// Every pair of layouts of the two that LoopsOf can do.
[[nodiscard]] std::vector<std::pair<Layout, Layout>> PossibleLayouts(const Move& move);

}  // namespace ulmora::engine::cpu
