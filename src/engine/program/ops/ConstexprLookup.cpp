// Weights that a package keeps as indices into tables, or without their zeros. Two generations of the same operations
// differ in form: the older ones come as packed bytes with a `shape`, the newer ones as typed tensors without it.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/BlockGrid.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string>
#include <type_traits>

namespace ulmora::engine::program {
namespace {

using Types = std::vector<TensorType>;
using Tensors = std::vector<Tensor>;

Shape ReadShape(const OpCall& call) {
  Shape shape = call.Ints("shape");
  if (!IsStatic(shape)) call.Fail("shape is " + ToString(shape) + ", expected no negative entries");
  return shape;
}

/// Fails unless the parameter holds the bytes of `bits` bits for each element of `shape`.
void RequirePacked(const OpCall& call, std::string_view parameter, const Shape& shape, std::int64_t bits) {
  RequireInts(call, parameter);
  RequireShape(call, parameter, {(CountElements(call, shape) * bits + 7) / 8});
}

/// Element i of a stream of `bits`-bit numbers, lowest bits first; each int holds one byte.
std::size_t Unpack(std::span<const std::int32_t> bytes, std::size_t i, std::size_t bits) {
  const std::size_t first = i * bits / 8;
  const auto byteAt = [&](std::size_t at) { return at < bytes.size() ? static_cast<unsigned>(bytes[at]) & 0xFFU : 0U; };
  const unsigned two = byteAt(first) | byteAt(first + 1) << 8U;
  return (two >> (i * bits % 8)) & ((1U << bits) - 1U);
}

/// A tensor like `source` in kind, of other shape, whose element i is that of `source` at(i), or zero if that is
/// negative.
template <typename At>
Tensor TakeFrom(const Tensor& source, Shape shape, const At& at) {
  const auto take = [&](const auto& elements) {
    using Element = std::remove_cvref_t<decltype(elements[0])>;
    std::vector<Element> result(static_cast<std::size_t>(ElementCount(shape)));
    for (std::size_t i = 0; i < result.size(); ++i) {
      const std::int64_t from = at(i);
      if (from >= 0) result[i] = elements[static_cast<std::size_t>(from)];
    }
    return result;
  };
  if (source.storage() == Storage::Float) {
    return Tensor::Floats(shape, take(source.floats()), source.element());
  }
  return Tensor::Ints(shape, take(source.ints()), source.element());
}

/// Bits per index into a table of that many entries.
std::int64_t PackedIndexBits(const OpCall& call) {
  RequireNumbers(call, "lut");
  RequireRank(call, "lut", 1, 1);
  const auto entries = static_cast<std::uint64_t>(call.ShapeOf("lut")[0]);
  static constexpr std::array<std::uint64_t, 5> kSizes = {2, 4, 16, 64, 256};
  if (std::ranges::find(kSizes, entries) == kSizes.end()) {
    call.Fail("lut has " + std::to_string(entries) + " entries, expected 2, 4, 16, 64 or 256");
  }
  return std::countr_zero(entries);
}

/// The newer form of a table: of shape [blocks..., entries, vectorLength], one table for each block of the indices.
struct Lookup {
  Lookup(const OpCall& call, const Shape& indexShape)
      : rank(indexShape.size()), grid(call, "lut", indexShape, Blocks(call, rank)), output(indexShape) {
    RequireNumbers(call, "lut");
    const Shape& lut = call.ShapeOf("lut");
    entries = lut[rank];
    vectorLength = lut[rank + 1];
    if (entries < 1 || vectorLength < 1) call.Fail("lut has shape " + ToString(lut) + " without elements");
    if (vectorLength == 1) return;
    if (!call.Has("vector_axis")) call.Fail("vector_axis is missing for vectors of " + std::to_string(vectorLength));
    axis = static_cast<std::size_t>(call.Axis(call.Int("vector_axis"), rank));
    output[axis] *= vectorLength;
  }

  /// The leading dimensions of lut, as many as the indices have.
  static Shape Blocks(const OpCall& call, std::size_t rank) {
    RequireRank(call, "lut", rank + 2, rank + 2);
    const Shape& lut = call.ShapeOf("lut");
    return {lut.begin(), lut.end() - 2};
  }

  /// Index of the entry that element `at` of the output comes from.
  [[nodiscard]] Shape Origin(Shape at) const {
    if (vectorLength > 1) at[axis] /= vectorLength;
    return at;
  }

  /// Offset in lut of element `at` of the output, given the index of its entry.
  [[nodiscard]] std::int64_t OffsetOf(const OpCall& call, const Shape& at, std::int32_t entry) const {
    if (entry < 0 || entry >= entries) {
      call.Fail("index " + std::to_string(entry) + " is outside a table of " + std::to_string(entries) + " entries");
    }
    const std::int64_t element = vectorLength > 1 ? at[axis] % vectorLength : 0;
    const auto block = static_cast<std::int64_t>(grid.BlockOf(Origin(at)));
    return (block * entries + entry) * vectorLength + element;
  }

  std::size_t rank;
  BlockGrid grid;
  Shape output;
  std::int64_t entries = 1;
  std::int64_t vectorLength = 1;
  std::size_t axis = 0;
};

Types InferLutToDense(const OpCall& call) {
  if (call.Has("shape")) {
    Shape shape = ReadShape(call);
    RequirePacked(call, "indices", shape, PackedIndexBits(call));
    return {{call.Type("lut").element, std::move(shape)}};
  }
  RequireInts(call, "indices");
  return {{call.Type("lut").element, Lookup(call, call.ShapeOf("indices")).output}};
}

Tensors EvaluateLutToDense(const OpCall& call) {
  const Tensor& lut = call.Value("lut");
  const std::span<const std::int32_t> indices = call.Value("indices").ints();
  if (call.Has("shape")) {
    const auto bits = static_cast<std::size_t>(PackedIndexBits(call));
    return {TakeFrom(lut, ReadShape(call),
                     [&](std::size_t i) { return static_cast<std::int64_t>(Unpack(indices, i, bits)); })};
  }
  const Lookup lookup(call, call.ShapeOf("indices"));
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("indices"));
  Shape at(lookup.rank, 0);
  return {TakeFrom(lut, lookup.output, [&](std::size_t) {
    const std::int32_t entry = indices[static_cast<std::size_t>(Offset(lookup.Origin(at), strides))];
    const std::int64_t offset = lookup.OffsetOf(call, at, entry);
    static_cast<void>(NextIndex(at, lookup.output));
    return offset;
  })};
}

Types InferLutToSparse(const OpCall& call) {
  RequireInts(call, "indices_mask");
  RequireInts(call, "indices_nonzero_data");
  RequireRank(call, "indices_nonzero_data", 1, 1);
  const Lookup lookup(call, call.ShapeOf("indices_mask"));
  return {{call.Type("indices_mask").element, lookup.output},
          {call.Type("lut").element, {call.ShapeOf("indices_nonzero_data")[0] * lookup.vectorLength}}};
}

/// Two results: the mask, each bit repeated along the vector axis, and the looked up values under it in row-major
/// order.
Tensors EvaluateLutToSparse(const OpCall& call) {
  const Tensor& mask = call.Value("indices_mask");
  const std::span<const std::int32_t> entries = call.Value("indices_nonzero_data").ints();
  RequireSetBits(call, mask, static_cast<std::int64_t>(entries.size()));
  const Lookup lookup(call, mask.shape());
  const std::vector<std::int64_t> strides = RowMajorStrides(mask.shape());
  std::vector<std::size_t> number(mask.ints().size());  // of the marked elements before each
  for (std::size_t i = 1; i < number.size(); ++i) number[i] = number[i - 1] + (mask.ints()[i - 1] != 0 ? 1 : 0);
  std::vector<std::int64_t> offsets;
  Shape at(lookup.rank, 0);
  Tensor wideMask = TakeFrom(mask, lookup.output, [&](std::size_t) {
    const std::int64_t origin = Offset(lookup.Origin(at), strides);
    const auto i = static_cast<std::size_t>(origin);
    if (mask.ints()[i] != 0) offsets.push_back(lookup.OffsetOf(call, at, entries[number[i]]));
    static_cast<void>(NextIndex(at, lookup.output));
    return origin;
  });
  const Shape shape = {static_cast<std::int64_t>(offsets.size())};
  return {std::move(wideMask), TakeFrom(call.Value("lut"), shape, [&](std::size_t i) { return offsets[i]; })};
}

Types InferSparseToDense(const OpCall& call) {
  RequireNumbers(call, "nonzero_data");
  RequireRank(call, "nonzero_data", 1, 1);
  if (!call.Has("shape")) {
    RequireInts(call, "mask");
    return {{call.Type("nonzero_data").element, call.ShapeOf("mask")}};
  }
  Shape shape = ReadShape(call);
  RequirePacked(call, "mask", shape, 1);
  return {{call.Type("nonzero_data").element, std::move(shape)}};
}

/// Marked elements take the given ones in order, the others are zero.
Tensors EvaluateSparseToDense(const OpCall& call) {
  const bool packed = call.Has("shape");
  Tensor mask = call.Value("mask");
  if (packed) {
    const Shape shape = ReadShape(call);
    std::vector<std::int32_t> bits(static_cast<std::size_t>(ElementCount(shape)));
    for (std::size_t i = 0; i < bits.size(); ++i) bits[i] = static_cast<std::int32_t>(Unpack(mask.ints(), i, 1));
    mask = Tensor::Ints(shape, std::move(bits), ElementType::UInt1);
  }
  const Tensor& data = call.Value("nonzero_data");
  RequireSetBits(call, mask, data.count());
  std::int64_t next = 0;
  return {TakeFrom(data, mask.shape(), [&](std::size_t i) { return mask.ints()[i] != 0 ? next++ : -1; })};
}

}  // namespace

std::vector<OpDefinition> ConstexprLookupOps() {
  return {
      {"constexpr_lut_to_dense",
       {Required("indices"), Required("lut"), OptionalConstant("shape"), OptionalConstant("vector_axis")},
       InferLutToDense,
       EvaluateLutToDense},
      {"constexpr_lut_to_sparse",
       {Required("indices_mask"), Required("indices_nonzero_data"), Required("lut"), OptionalConstant("vector_axis")},
       InferLutToSparse,
       EvaluateLutToSparse},
      {"constexpr_sparse_to_dense",
       {Required("nonzero_data"), Required("mask"), OptionalConstant("shape")},
       InferSparseToDense,
       EvaluateSparseToDense},
  };
}

}  // namespace ulmora::engine::program
