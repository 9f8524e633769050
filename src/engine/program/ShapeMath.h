#pragma once
// Arithmetic on shapes and indices that the operations share. Knows no operation and throws nothing.

#include "engine/Tensor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace ulmora::engine::program {

/// `axis` counted from the front (negative ones count from the end); none if it is outside [-rank, rank).
[[nodiscard]] std::optional<std::int64_t> NormalizeAxis(std::int64_t axis, std::size_t rank) noexcept;

/// Shape of an elementwise operation on both by numpy's rule: aligned at the right, sizes equal or one of them 1; none
/// if they do not match.
[[nodiscard]] std::optional<Shape> Broadcast(const Shape& a, const Shape& b);

/// Elements between neighbours along each dimension of a dense row-major tensor.
[[nodiscard]] std::vector<std::int64_t> RowMajorStrides(const Shape& shape);

/// Strides for reading a dense tensor of shape `from` at indices of shape `to`, to which it broadcasts: 0 along
/// dimensions that it repeats.
[[nodiscard]] std::vector<std::int64_t> BroadcastStrides(const Shape& from, const Shape& to);

/// Sum of index times stride; both have the same length.
[[nodiscard]] std::int64_t Offset(const Shape& index, const std::vector<std::int64_t>& strides) noexcept;

/// Moves `index` to the next element in row-major order; false, with the index at zero again, after the last one.
/// Usage, for a shape with elements: Shape index(shape.size(), 0); do { ... } while (NextIndex(index, shape));
[[nodiscard]] bool NextIndex(Shape& index, const Shape& shape) noexcept;

/// One spatial axis of a convolution or pool with everything resolved to numbers.
struct WindowAxis {
  std::int64_t input = 1;
  std::int64_t kernel = 1;
  std::int64_t stride = 1;
  std::int64_t dilation = 1;
  std::int64_t padBefore = 0;
  std::int64_t padAfter = 0;
  std::int64_t output = 0;

  /// Elements that the kernel spans: (kernel - 1) * dilation + 1.
  [[nodiscard]] std::int64_t Span() const noexcept { return (kernel - 1) * dilation + 1; }

  friend bool operator==(const WindowAxis&, const WindowAxis&) = default;
};

/// floor((input + padBefore + padAfter - span) / stride) + 1, at least 0.
[[nodiscard]] std::int64_t WindowOutput(const WindowAxis& axis) noexcept;

/// Padding of an axis such that the output has ceil(input / stride) elements: total = max(0, (output - 1) * stride +
/// span - input), halved with the odd element after the input, or before it if `lower`. Sets pads and output.
void PadToSame(WindowAxis& axis, bool lower) noexcept;

}  // namespace ulmora::engine::program
