// slice, its kin that cut any axes, gather, reverse and bands of matrices: some elements of a blob.

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

void SetSlice(Layer& layer, const Blob& input, Arguments arguments) {
  const Masks squeezed = MaskOf(layer, "squeezeMasks", input.rank);
  arguments.emplace_back("x", input);
  arguments.emplace_back("begin_mask", MaskTensor(MaskOf(layer, "beginMasks", input.rank)));
  arguments.emplace_back("end_mask", MaskTensor(MaskOf(layer, "endMasks", input.rank)));
  arguments.emplace_back("squeeze_mask", MaskTensor(squeezed));
  const ValueId value = layer.Emit("slice_by_index", std::move(arguments));
  const std::size_t rank = RankWithout(squeezed, input.rank);
  if (rank > 0) return layer.SetOutput({value, rank});
  layer.SetOutput({layer.Emit("expand_dims", {{"x", value}, {"axes", Tensor::IntVector({0})}}), 1});
}

Tensor Strides(const Layer& layer, std::size_t rank) {
  const std::vector<std::int32_t> given = layer.Ints("strides");
  return Tensor::IntVector(given.empty() ? std::vector<std::int32_t>(rank, 1) : given);
}

void SliceStatic(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  SetSlice(layer, input,
           {{"begin", Tensor::IntVector(layer.Ints("beginIds"))},
            {"end", Tensor::IntVector(layer.Ints("endIds"))},
            {"stride", Strides(layer, input.rank)}});
}

/// The bounds come as blobs, whose values follow from shapes. Masks that come that way, too, are not supported.
void SliceDynamic(Layer& layer) {
  layer.Require(2, 4);
  const Blob input = layer.FullInput();
  Arguments arguments = {{"begin", layer.Whole(layer.Input(1))}};
  if (layer.InputCount() > 2) {
    arguments.emplace_back("end", layer.Whole(layer.Input(2)));
  } else {
    arguments.emplace_back("end", Tensor::IntVector(layer.Ints("endIds")));
  }
  if (layer.InputCount() > 3) {
    arguments.emplace_back("stride", layer.Whole(layer.Input(3)));
  } else {
    arguments.emplace_back("stride", Strides(layer, input.rank));
  }
  SetSlice(layer, input, std::move(arguments));
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

void Gather(Layer& layer) {
  layer.Require(2, 2);
  const Blob input = layer.FullInput(0);
  const Blob indices = layer.FullInput(1);
  const ValueId value =
      layer.Emit("gather", {{"x", input}, {"indices", layer.Whole(indices)}, {"axis", Axis(layer.Int("axis"))}});
  layer.SetOutput({value, input.rank + indices.rank - 1});
}

void GatherAlongAxis(Layer& layer) {
  layer.Require(2, 2);
  const Blob input = layer.FullInput(0);
  const ValueId indices = layer.Whole(layer.FullInput(1));
  const ValueId value =
      layer.Emit("gather_along_axis", {{"x", input}, {"indices", indices}, {"axis", Axis(layer.Int("axis"))}});
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

void SetBand(Layer& layer, std::int64_t lower, std::int64_t upper) {
  layer.Require(1, 1);
  SetLikeInput(layer, layer.Emit("band_part", {{"x", layer.Input()}, {"lower", Axis(lower)}, {"upper", Axis(upper)}}));
}

void MatrixBandPart(Layer& layer) {
  SetBand(layer, layer.Int("numLower"), layer.Int("numUpper"));
}

/// What is not above diagonal k, or not below it. Diagonals that leave the main one out have no operation.
void LowerTriangular(Layer& layer) {
  if (layer.Int("k") < 0) layer.Fail("ends below the main diagonal, which is not supported");
  SetBand(layer, -1, layer.Int("k"));
}

void UpperTriangular(Layer& layer) {
  if (layer.Int("k") > 0) layer.Fail("begins above the main diagonal, which is not supported");
  SetBand(layer, -layer.Int("k"), -1);
}

}  // namespace

LayerRules SliceLayers() {
  return {{"slice", Slice},
          {"sliceStatic", SliceStatic},
          {"sliceDynamic", SliceDynamic},
          {"sliceBySize", SliceBySize},
          {"gather", Gather},
          {"gatherAlongAxis", GatherAlongAxis},
          {"reverse", Reverse},
          {"matrixBandPart", MatrixBandPart},
          {"lowerTriangular", LowerTriangular},
          {"upperTriangular", UpperTriangular}};
}

}  // namespace ulmora::engine::program::layers
