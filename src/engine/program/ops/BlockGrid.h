#pragma once
// Blocks of compressed weights that share a scale or a lookup table.

#include "engine/program/OpCall.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace ulmora::engine::program {

/// Division of a tensor into equal blocks: dimension m of `blocks` counts the blocks along dimension m of `dense`.
class BlockGrid {
 public:
  /// Fails, naming `parameter`, if the ranks differ or a dimension is not a multiple of its number of blocks.
  BlockGrid(const OpCall& call, std::string_view parameter, const Shape& dense, const Shape& blocks);

  /// Row-major number of the block that holds the element at `index`.
  [[nodiscard]] std::size_t BlockOf(const Shape& index) const noexcept;

 private:
  std::vector<std::int64_t> blockSize_;
  std::vector<std::int64_t> blockStride_;
};

/// Element of a tensor of floats or integers.
[[nodiscard]] double NumberAt(const Tensor& tensor, std::size_t i);

/// Fails unless exactly `expected` elements of the integer tensor are not zero.
void RequireSetBits(const OpCall& call, const Tensor& mask, std::int64_t expected);

}  // namespace ulmora::engine::program
