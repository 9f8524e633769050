#pragma once
// The ways in which activations lie in memory, and the library's descriptors of them.

#include "engine/Tensor.h"
#include "engine/cpu/OneDnn.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ulmora::engine::cpu {

/// Tensors of rank 3 to 5 are batch, channels and spatial dimensions; others only know Plain.
enum class Layout : std::uint8_t {
  Plain,         ///< dense row-major
  ChannelsLast,  ///< [N, spatial..., C]
  Blocked,       ///< [N, C / B, spatial..., B] for the processor's channel block B; lanes beyond C hold zeros
};

inline constexpr std::size_t kLayouts = 3;
inline constexpr std::array<Layout, kLayouts> kAllLayouts = {Layout::Plain, Layout::ChannelsLast, Layout::Blocked};

/// True for the ranks that have other layouts than Plain.
[[nodiscard]] bool HasChannels(const Shape& shape) noexcept;

/// True if a tensor of this shape is the same bytes in both layouts.
[[nodiscard]] bool SameBytes(const Shape& shape, Layout a, Layout b);

/// True if Blocked has no lanes beyond C. Kernels of ours that address channels ask for it.
[[nodiscard]] bool FillsBlocks(const Shape& shape);

/// The library's float32 descriptor. A shape of rank 0 is described as one element of rank 1.
[[nodiscard]] onednn::Desc Descriptor(const Shape& shape, Layout layout);

/// Bytes of one element of a storage class: 4, or 1 for bool.
[[nodiscard]] std::int64_t ElementBytes(Storage storage);

/// Bytes in memory of a tensor of this type, lanes beyond C included.
[[nodiscard]] std::int64_t ByteCount(const TensorType& type, Layout layout);

/// One loop over a tensor in the order of memory.
struct Loop {
  std::size_t axis = 0;    ///< which dimension of the shape
  std::int64_t count = 0;  ///< iterations
  std::int64_t step = 1;   ///< how far one iteration moves along the dimension: B for the outer loop over channels
};

/// The loops that visit a tensor in the order of memory, outermost first: one a dimension, two for blocked channels.
/// Blocked requires FillsBlocks.
[[nodiscard]] std::vector<Loop> MemoryOrder(const Shape& shape, Layout layout);

/// Element offset of index i along `axis`, for all i; the offset of an element is the sum over its axes. Blocked
/// requires FillsBlocks.
[[nodiscard]] std::vector<std::int64_t> AxisOffsets(const Shape& shape, Layout layout, std::size_t axis);

}  // namespace ulmora::engine::cpu
