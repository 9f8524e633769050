#include "engine/program/ops/BlockGrid.h"

#include "engine/program/ShapeMath.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program {

BlockGrid::BlockGrid(const OpCall& call, std::string_view parameter, const Shape& dense, const Shape& blocks)
    : blockStride_(RowMajorStrides(blocks)) {
  bool divides = dense.size() == blocks.size();
  for (std::size_t i = 0; divides && i < dense.size(); ++i) {
    divides = blocks[i] >= 1 && dense[i] % blocks[i] == 0;
    if (divides) blockSize_.push_back(dense[i] / blocks[i]);
  }
  if (!divides) {
    call.Fail(std::string(parameter) + " has blocks " + ToString(blocks) + ", which do not divide a tensor of shape " +
              ToString(dense));
  }
}

std::size_t BlockGrid::BlockOf(const Shape& index) const noexcept {
  std::int64_t block = 0;
  for (std::size_t i = 0; i < index.size(); ++i) block += index[i] / blockSize_[i] * blockStride_[i];
  return static_cast<std::size_t>(block);
}

double NumberAt(const Tensor& tensor, std::size_t i) {
  return tensor.storage() == Storage::Float ? static_cast<double>(tensor.floats()[i])
                                            : static_cast<double>(tensor.ints()[i]);
}

void RequireSetBits(const OpCall& call, const Tensor& mask, std::int64_t expected) {
  const std::span<const std::int32_t> bits = mask.ints();
  const std::int64_t set = std::ranges::count_if(bits, [](std::int32_t bit) { return bit != 0; });
  if (set != expected) {
    call.Fail("the mask marks " + std::to_string(set) + " elements, but " + std::to_string(expected) + " are given");
  }
}

}  // namespace ulmora::engine::program
