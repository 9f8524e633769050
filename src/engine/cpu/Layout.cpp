#include "engine/cpu/Layout.h"

#include "engine/cpu/RoundUp.h"
#include "engine/program/ShapeMath.h"

namespace ulmora::engine::cpu {
namespace {

constexpr std::size_t kChannelAxis = 1;

std::int64_t Block() {
  static const std::int64_t block = onednn::ChannelBlock();
  return block;
}

dnnl::memory::format_tag TagOf(std::size_t rank, Layout layout) {
  using Tag = dnnl::memory::format_tag;
  if (layout == Layout::ChannelsLast) return rank == 3 ? Tag::nwc : rank == 4 ? Tag::nhwc : Tag::ndhwc;
  if (Block() == 16) return rank == 3 ? Tag::nCw16c : rank == 4 ? Tag::nChw16c : Tag::nCdhw16c;
  return rank == 3 ? Tag::nCw8c : rank == 4 ? Tag::nChw8c : Tag::nCdhw8c;
}

std::vector<std::int64_t> ChannelsLastStrides(const Shape& shape) {
  std::vector<std::int64_t> strides(shape.size(), 1);
  std::int64_t stride = shape[kChannelAxis];
  for (std::size_t axis = shape.size(); axis-- > 2;) {
    strides[axis] = stride;
    stride *= shape[axis];
  }
  strides[0] = stride;
  return strides;
}

/// Strides of all axes but the channels, whose entry is the stride between blocks.
std::vector<std::int64_t> BlockedStrides(const Shape& shape) {
  std::vector<std::int64_t> strides(shape.size(), 1);
  std::int64_t stride = Block();
  for (std::size_t axis = shape.size(); axis-- > 2;) {
    strides[axis] = stride;
    stride *= shape[axis];
  }
  strides[kChannelAxis] = stride;
  strides[0] = stride * DivideUp(shape[kChannelAxis], Block());
  return strides;
}

}  // namespace

bool HasChannels(const Shape& shape) noexcept {
  return shape.size() >= 3 && shape.size() <= 5;
}

bool SameBytes(const Shape& shape, Layout a, Layout b) {
  if (a == b || !HasChannels(shape)) return true;
  if (a == Layout::Blocked || b == Layout::Blocked) {
    const Layout other = a == Layout::Blocked ? b : a;
    if (!FillsBlocks(shape)) return false;
    if (shape[kChannelAxis] == Block())
      return other == Layout::ChannelsLast || SameBytes(shape, Layout::Plain, Layout::ChannelsLast);
    if (other == Layout::ChannelsLast) return SameBytes(shape, Layout::Plain, Layout::ChannelsLast);
    for (std::size_t axis = 2; axis < shape.size(); ++axis) {
      if (shape[axis] != 1) return false;
    }
    return true;
  }
  std::int64_t spatial = 1;
  for (std::size_t axis = 2; axis < shape.size(); ++axis) spatial *= shape[axis];
  return shape[kChannelAxis] == 1 || spatial == 1;
}

bool FillsBlocks(const Shape& shape) {
  return HasChannels(shape) && shape[kChannelAxis] % Block() == 0;
}

onednn::Desc Descriptor(const Shape& shape, Layout layout) {
  constexpr auto kFloat = dnnl::memory::data_type::f32;
  if (shape.empty()) return {{1}, kFloat, dnnl::memory::format_tag::a};
  if (layout == Layout::Plain) return {shape, kFloat, program::RowMajorStrides(shape)};
  return {shape, kFloat, TagOf(shape.size(), layout)};
}

std::int64_t ElementBytes(Storage storage) {
  return storage == Storage::Bool ? 1 : 4;
}

std::int64_t ByteCount(const TensorType& type, Layout layout) {
  std::int64_t count = ElementCount(type.shape);
  if (layout == Layout::Blocked && count > 0) {
    const std::int64_t channels = type.shape[kChannelAxis];
    count = count / channels * RoundUp(channels, Block());
  }
  return count * ElementBytes(StorageOf(type.element));
}

std::vector<Loop> MemoryOrder(const Shape& shape, Layout layout) {
  std::vector<Loop> loops;
  if (layout == Layout::Plain) {
    for (std::size_t axis = 0; axis < shape.size(); ++axis) loops.push_back({axis, shape[axis], 1});
    return loops;
  }
  loops.push_back({0, shape[0], 1});
  if (layout == Layout::Blocked) loops.push_back({kChannelAxis, shape[kChannelAxis] / Block(), Block()});
  for (std::size_t axis = 2; axis < shape.size(); ++axis) loops.push_back({axis, shape[axis], 1});
  loops.push_back({kChannelAxis, layout == Layout::Blocked ? Block() : shape[kChannelAxis], 1});
  return loops;
}

std::vector<std::int64_t> AxisOffsets(const Shape& shape, Layout layout, std::size_t axis) {
  const std::vector<std::int64_t> strides = layout == Layout::Plain          ? program::RowMajorStrides(shape)
                                            : layout == Layout::ChannelsLast ? ChannelsLastStrides(shape)
                                                                             : BlockedStrides(shape);
  std::vector<std::int64_t> offsets(static_cast<std::size_t>(shape[axis]));
  for (std::int64_t i = 0; i < shape[axis]; ++i) {
    const bool inBlocks = layout == Layout::Blocked && axis == kChannelAxis;
    offsets[static_cast<std::size_t>(i)] = inBlocks ? i / Block() * strides[axis] + i % Block() : i * strides[axis];
  }
  return offsets;
}

}  // namespace ulmora::engine::cpu
