#include "engine/program/ShapeMath.h"

#include <algorithm>

namespace ulmora::engine::program {

std::optional<std::int64_t> NormalizeAxis(std::int64_t axis, std::size_t rank) noexcept {
  const auto dims = static_cast<std::int64_t>(rank);
  if (axis < -dims || axis >= dims) return std::nullopt;
  return axis < 0 ? axis + dims : axis;
}

std::optional<Shape> Broadcast(const Shape& a, const Shape& b) {
  const Shape& longer = a.size() >= b.size() ? a : b;
  const Shape& shorter = a.size() >= b.size() ? b : a;
  Shape result = longer;
  const std::size_t shift = longer.size() - shorter.size();
  for (std::size_t i = 0; i < shorter.size(); ++i) {
    std::int64_t& dim = result[shift + i];
    if (dim == 1) {
      dim = shorter[i];
    } else if (shorter[i] != 1 && shorter[i] != dim) {
      return std::nullopt;
    }
  }
  return result;
}

std::vector<std::int64_t> RowMajorStrides(const Shape& shape) {
  std::vector<std::int64_t> strides(shape.size(), 1);
  for (std::size_t i = shape.size(); i-- > 1;) strides[i - 1] = strides[i] * shape[i];
  return strides;
}

std::vector<std::int64_t> BroadcastStrides(const Shape& from, const Shape& to) {
  const std::vector<std::int64_t> dense = RowMajorStrides(from);
  std::vector<std::int64_t> strides(to.size(), 0);
  const std::size_t shift = to.size() - from.size();
  for (std::size_t i = 0; i < from.size(); ++i) strides[shift + i] = from[i] == 1 ? 0 : dense[i];
  return strides;
}

std::int64_t Offset(const Shape& index, const std::vector<std::int64_t>& strides) noexcept {
  std::int64_t offset = 0;
  for (std::size_t i = 0; i < index.size(); ++i) offset += index[i] * strides[i];
  return offset;
}

bool NextIndex(Shape& index, const Shape& shape) noexcept {
  for (std::size_t i = shape.size(); i-- > 0;) {
    if (++index[i] < shape[i]) return true;
    index[i] = 0;
  }
  return false;
}

std::int64_t WindowOutput(const WindowAxis& axis) noexcept {
  const std::int64_t room = axis.input + axis.padBefore + axis.padAfter - axis.Span();
  return room < 0 ? 0 : room / axis.stride + 1;
}

void PadToSame(WindowAxis& axis, bool lower) noexcept {
  axis.output = (axis.input + axis.stride - 1) / axis.stride;
  const std::int64_t total = std::max<std::int64_t>(0, (axis.output - 1) * axis.stride + axis.Span() - axis.input);
  const std::int64_t smaller = total / 2;
  axis.padBefore = lower ? total - smaller : smaller;
  axis.padAfter = total - axis.padBefore;
}

}  // namespace ulmora::engine::program
