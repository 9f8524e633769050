// slice, its kin that cut any axes, windows, reverse, and bands of matrices: some elements of a blob.

#include "engine/program/import/layers/Families.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program::layers {
namespace {

using Masks = std::vector<std::uint8_t>;

Tensor MaskTensor(Masks mask) {
  const auto size = static_cast<std::int64_t>(mask.size());
  return Tensor::Bools({size}, std::move(mask));
}

/// One axis of planes. Bounds below zero count from the end, so that an end of -1 leaves the last element out.
void Slice(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.Input();
  layer.RequireRank(input, 3);
  const std::string& name = layer.Text("axis");
  const std::size_t axis = input.rank - (name == "CHANNEL_AXIS" ? 3 : name == "HEIGHT_AXIS" ? 2 : 1);
  std::vector<std::int32_t> begin(input.rank, 0);
  std::vector<std::int32_t> end(input.rank, 0);
  std::vector<std::int32_t> stride(input.rank, 1);
  Masks open(input.rank, 1);
  begin[axis] = static_cast<std::int32_t>(layer.Int("startIndex"));
  end[axis] = static_cast<std::int32_t>(layer.Int("endIndex"));
  stride[axis] = static_cast<std::int32_t>(std::max<std::int64_t>(1, layer.Int("stride")));
  open[axis] = 0;
  SetLikeInput(layer, layer.Emit("slice_by_index", {{"x", input},
                                                    {"begin", Tensor::IntVector(std::move(begin))},
                                                    {"end", Tensor::IntVector(std::move(end))},
                                                    {"stride", Tensor::IntVector(std::move(stride))},
                                                    {"begin_mask", MaskTensor(open)},
                                                    {"end_mask", MaskTensor(open)}}));
}

/// A mask of the layer, one entry per dimension; all false if it is left out.
Masks MaskOf(const Layer& layer, const char* parameter, std::size_t rank) {
  Masks mask(rank, 0);
  const std::vector<bool> given = layer.Bools(parameter);
  if (given.empty()) return mask;
  if (given.size() != rank) {
    layer.Fail(std::string(parameter) + " has " + std::to_string(given.size()) + " entries, expected " +
               std::to_string(rank));
  }
  std::ranges::transform(given, mask.begin(), [](bool bit) { return static_cast<std::uint8_t>(bit ? 1 : 0); });
  return mask;
}

std::size_t RankWithout(const Masks& squeezed, std::size_t rank) {
  return rank - static_cast<std::size_t>(std::ranges::count(squeezed, 1));
}

void SliceStatic(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const Masks squeezed = MaskOf(layer, "squeezeMasks", input.rank);
  std::vector<std::int32_t> strides = layer.Ints("strides");
  if (strides.empty()) strides.assign(input.rank, 1);
  const ValueId value =
      layer.Emit("slice_by_index", {{"x", input},
                                    {"begin", Tensor::IntVector(layer.Ints("beginIds"))},
                                    {"end", Tensor::IntVector(layer.Ints("endIds"))},
                                    {"stride", Tensor::IntVector(std::move(strides))},
                                    {"begin_mask", MaskTensor(MaskOf(layer, "beginMasks", input.rank))},
                                    {"end_mask", MaskTensor(MaskOf(layer, "endMasks", input.rank))},
                                    {"squeeze_mask", MaskTensor(squeezed)}});
  layer.SetOutput({value, RankWithout(squeezed, input.rank)});
}

/// One entry per dimension of a list that may be longer: the tools fill lists up to five, whatever the rank.
template <typename List>
List FirstOf(const Layer& layer, const char* parameter, List given, std::size_t rank) {
  if (given.size() < rank) {
    layer.Fail(std::string(parameter) + " has " + std::to_string(given.size()) + " entries, expected " +
               std::to_string(rank));
  }
  given.resize(rank);
  return given;
}

/// Input number `index` if there are that many, else the layer's own list.
Argument EndsOf(Layer& layer, std::size_t index, std::size_t rank) {
  if (layer.InputCount() > index) return layer.Whole(layer.Input(index));
  return Tensor::IntVector(FirstOf(layer, "endIds", layer.Ints("endIds"), rank));
}

Argument StridesOf(Layer& layer, std::size_t index, std::size_t rank) {
  if (layer.InputCount() > index) return layer.Whole(layer.Input(index));
  std::vector<std::int32_t> strides = layer.Ints("strides");
  if (strides.empty()) strides.assign(rank, 1);
  return Tensor::IntVector(FirstOf(layer, "strides", std::move(strides), rank));
}

Masks OwnMask(const Layer& layer, const char* parameter, std::size_t rank) {
  const std::vector<bool> given = layer.Bools(parameter);
  if (given.empty()) return Masks(rank, 0);
  return FirstOf(layer, parameter, Masks(given.begin(), given.end()), rank);
}

Argument MaskOrInput(Layer& layer, std::size_t index, const char* parameter, std::size_t rank) {
  if (layer.InputCount() <= index) return MaskTensor(OwnMask(layer, parameter, rank));
  return layer.Emit("not_equal", {{"x", layer.Input(index)}, {"y", Tensor::Float(0.0F)}});
}

/// The rank that is left when the dimensions of the mask, input number `index` or the layer's own, are dropped. Where
/// the input follows from sizes, the layer must tell.
std::size_t SqueezedRank(Layer& layer, std::size_t index, std::size_t rank) {
  if (layer.InputCount() <= index) return RankWithout(OwnMask(layer, "squeezeMasks", rank), rank);
  const Tensor* const mask = layer.KnownValue(layer.Input(index));
  if (mask == nullptr) return layer.DeclaredRank();
  const auto dropped = static_cast<std::size_t>(mask->count() - std::ranges::count(mask->floats(), 0.0F));
  return rank - std::min(rank, dropped);
}

/// Begins come as a blob, and so may all other lists, one after another; their values follow from shapes.
void SliceDynamic(Layer& layer) {
  layer.Require(2, 7);
  const Blob input = layer.FullInput();
  const std::size_t rank = input.rank;
  const ValueId value = layer.Emit("slice_by_index", {{"x", input},
                                                      {"begin", layer.Whole(layer.Input(1))},
                                                      {"end", EndsOf(layer, 2, rank)},
                                                      {"stride", StridesOf(layer, 3, rank)},
                                                      {"begin_mask", MaskOrInput(layer, 4, "beginMasks", rank)},
                                                      {"end_mask", MaskOrInput(layer, 5, "endMasks", rank)},
                                                      {"squeeze_mask", MaskOrInput(layer, 6, "squeezeMasks", rank)}});
  layer.SetOutput({value, SqueezedRank(layer, 6, rank)});
}

/// An axis counted from the front.
std::size_t AxisOf(const Layer& layer, std::size_t rank) {
  const std::int64_t axis = layer.Int("axis");
  const auto signedRank = static_cast<std::int64_t>(rank);
  if (axis < -signedRank || axis >= signedRank) {
    layer.Fail("axis " + std::to_string(axis) + " is outside a blob of rank " + std::to_string(rank));
  }
  return static_cast<std::size_t>(axis < 0 ? axis + signedRank : axis);
}

/// `size` elements of one axis from where the second input says.
void SliceBySize(Layer& layer) {
  layer.Require(2, 2);
  const Blob input = layer.FullInput();
  const std::size_t axis = AxisOf(layer, input.rank);
  std::vector<std::int32_t> size(input.rank, -1);
  size[axis] = static_cast<std::int32_t>(layer.Int("size"));
  const ValueId start = layer.Emit("reshape", {{"x", layer.Whole(layer.Input(1))}, {"shape", Tensor::IntVector({1})}});
  std::vector<std::int32_t> unit(input.rank, 0);
  unit[axis] = 1;
  const ValueId begin = layer.Emit("mul", {{"x", start}, {"y", Tensor::IntVector(std::move(unit))}});
  const Tensor sizes = Tensor::IntVector(std::move(size));
  layer.SetOutput({layer.Emit("slice_by_size", {{"x", input}, {"begin", begin}, {"size", sizes}}), input.rank});
}

/// Runs of elements along an axis, as a dimension of their own behind it.
void SlidingWindows(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const ValueId value =
      layer.Emit("sliding_windows", {{"x", input},
                                     {"axis", Axis(layer.Int("axis"))},
                                     {"size", Tensor::Int(static_cast<std::int32_t>(layer.Int("windowSize")))},
                                     {"stride", Tensor::Int(static_cast<std::int32_t>(layer.Int("step")))}});
  layer.SetOutput({value, input.rank + 1});
}

/// The second input says how many elements from the start are turned round, for each element of the batch.
void ReverseSequence(Layer& layer) {
  layer.Require(2, 2);
  const Blob input = layer.FullInput();
  const ValueId value = layer.Emit("reverse_sequence", {{"x", input},
                                                        {"lengths", layer.Whole(layer.Input(1))},
                                                        {"seq_axis", Axis(layer.Int("sequenceAxis"))},
                                                        {"batch_axis", Axis(layer.Int("batchAxis"))}});
  layer.SetOutput({value, input.rank});
}

void Reverse(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const Masks reversed = MaskOf(layer, "reverseDim", input.rank);
  std::vector<std::int32_t> axes;
  for (std::size_t i = 0; i < reversed.size(); ++i) {
    if (reversed[i] != 0) axes.push_back(static_cast<std::int32_t>(i));
  }
  const ValueId value = layer.Emit("reverse", {{"x", input}, {"axes", Tensor::IntVector(std::move(axes))}});
  layer.SetOutput({value, input.rank});
}

ValueId Band(Layer& layer, ValueId x, std::int64_t lower, std::int64_t upper) {
  return layer.Emit("band_part", {{"x", x}, {"lower", Axis(lower)}, {"upper", Axis(upper)}});
}

void MatrixBandPart(Layer& layer) {
  layer.Require(1, 1);
  SetLikeInput(layer, Band(layer, layer.Input().value, layer.Int("numLower"), layer.Int("numUpper")));
}

/// x, but zero in a band of diagonals.
ValueId WithoutBand(Layer& layer, ValueId x, std::int64_t lower, std::int64_t upper) {
  const ValueId ones = layer.Emit("fill_like", {{"ref_tensor", x}, {"value", Tensor::Float(1.0F)}});
  const ValueId isBand = layer.Emit("not_equal", {{"x", Band(layer, ones, lower, upper)}, {"y", Tensor::Float(0.0F)}});
  return layer.Emit("select", {{"cond", isBand}, {"a", Tensor::Float(0.0F)}, {"b", x}});
}

/// What is not above diagonal k. Diagonals below the main one are bounded by the band that begins right above them.
void LowerTriangular(Layer& layer) {
  layer.Require(1, 1);
  const ValueId x = layer.Input().value;
  const std::int64_t k = layer.Int("k");
  SetLikeInput(layer, k >= 0 ? Band(layer, x, -1, k) : WithoutBand(layer, x, -k - 1, -1));
}

/// What is not below diagonal k.
void UpperTriangular(Layer& layer) {
  layer.Require(1, 1);
  const ValueId x = layer.Input().value;
  const std::int64_t k = layer.Int("k");
  SetLikeInput(layer, k <= 0 ? Band(layer, x, -k, -1) : WithoutBand(layer, x, -1, k - 1));
}

}  // namespace

LayerRules SliceLayers() {
  return {{"slice", Slice},
          {"sliceStatic", SliceStatic},
          {"sliceDynamic", SliceDynamic},
          {"sliceBySize", SliceBySize},
          {"slidingWindows", SlidingWindows},
          {"reverse", Reverse},
          {"reverseSeq", ReverseSequence},
          {"matrixBandPart", MatrixBandPart},
          {"lowerTriangular", LowerTriangular},
          {"upperTriangular", UpperTriangular}};
}

}  // namespace ulmora::engine::program::layers
