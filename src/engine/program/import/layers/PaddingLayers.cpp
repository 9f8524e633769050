// padding, constantPad and crop: more or less of the borders.

#include "engine/program/import/layers/Families.h"

namespace ulmora::engine::program::layers {
namespace {

void Padding(Layer& layer) {
  layer.Require(1, 1);
  layer.RequireRank(layer.Input(), 2);
  Arguments arguments = {{"x", layer.Input()}, {"pad", Tensor::IntVector(layer.Borders("paddingAmounts"))}};
  if (layer.Has("reflection")) {
    arguments.emplace_back("mode", "reflect");
  } else if (layer.Has("replication")) {
    arguments.emplace_back("mode", "replicate");
  } else {
    arguments.emplace_back("mode", "constant");
    arguments.emplace_back("constant_val", Tensor::Float(layer.Has("constant") ? layer.Float("constant.value") : 0.0F));
  }
  SetLikeInput(layer, layer.Emit("pad", std::move(arguments)));
}

/// The amounts that make each dimension as large as the one of its two entries in `sizes` that is not zero says, on
/// that side.
ValueId AmountsToSizes(Layer& layer, const Blob& input, ValueId sizes) {
  std::vector<std::int32_t> dimensions;
  for (std::size_t i = 0; i < 2 * input.rank; ++i) dimensions.push_back(static_cast<std::int32_t>(i / 2));
  const ValueId shape = layer.Emit("shape", {{"x", input}});
  const ValueId current =
      layer.Emit("gather", {{"x", shape}, {"indices", Tensor::IntVector(std::move(dimensions))}, {"axis", Axis(0)}});
  const ValueId missing = layer.Emit("sub", {{"x", sizes}, {"y", current}});
  const ValueId isWanted = layer.Emit("greater", {{"x", sizes}, {"y", Tensor::Int(0)}});
  return layer.Emit("mul", {{"x", missing}, {"y", layer.Emit("cast", {{"x", isWanted}, {"dtype", "int32"}})}});
}

/// Numbers before and after, of each dimension: from the second input, or the layer's own.
ValueId AmountsOf(Layer& layer, const Blob& input) {
  if (layer.InputCount() == 2) return layer.Whole(layer.Input(1));
  const std::vector<std::int32_t> amounts = layer.Ints("padAmounts");
  if (amounts.size() != 2 * input.rank) {
    layer.Fail("padAmounts has " + std::to_string(amounts.size()) + " entries, expected " +
               std::to_string(2 * input.rank));
  }
  return layer.Constant(Tensor::IntVector(amounts));
}

void ConstantPad(Layer& layer) {
  layer.Require(1, 2);
  const Blob input = layer.FullInput();
  ValueId amounts = AmountsOf(layer, input);
  if (layer.Bool("padToGivenOutputSizeMode")) amounts = AmountsToSizes(layer, input, amounts);
  const ValueId value = layer.Emit(
      "pad",
      {{"x", input}, {"pad", amounts}, {"mode", "constant"}, {"constant_val", Tensor::Float(layer.Float("value"))}});
  layer.SetOutput({value, input.rank});
}

/// Zeros but for the last two of `rank` entries.
std::vector<std::int32_t> OnPlane(std::size_t rank, std::int32_t other, std::int32_t height, std::int32_t width) {
  std::vector<std::int32_t> entries(rank, other);
  entries[rank - 2] = height;
  entries[rank - 1] = width;
  return entries;
}

ValueId CropBorders(Layer& layer, const Blob& input) {
  const std::vector<std::int32_t> borders = layer.Borders("cropAmounts");
  std::vector<std::uint8_t> open(input.rank, 1);
  open[input.rank - 2] = borders[1] == 0 ? 1 : 0;
  open[input.rank - 1] = borders[3] == 0 ? 1 : 0;
  const Tensor openEnds = Tensor::Bools({static_cast<std::int64_t>(input.rank)}, std::move(open));
  return layer.Emit("slice_by_index", {{"x", input},
                                       {"begin", Tensor::IntVector(OnPlane(input.rank, 0, borders[0], borders[2]))},
                                       {"end", Tensor::IntVector(OnPlane(input.rank, 0, -borders[1], -borders[3]))},
                                       {"end_mask", openEnds}});
}

/// As large as the second input, from the offset on.
ValueId CropLike(Layer& layer, const Blob& input, const Blob& reference) {
  const std::vector<std::int32_t> offset = layer.Pair("offset", 0);
  const ValueId rest = layer.Constant(Tensor::IntVector(std::vector<std::int32_t>(input.rank - 2, -1)));
  const ValueId plane = layer.Sizes(reference.value, reference.rank - 2, reference.rank);
  const ValueId size = layer.JoinedSizes({rest, plane});
  const Tensor begin = Tensor::IntVector(OnPlane(input.rank, 0, offset[0], offset[1]));
  return layer.Emit("slice_by_size", {{"x", input}, {"begin", begin}, {"size", size}});
}

void Crop(Layer& layer) {
  layer.Require(1, 2);
  const Blob input = layer.Input();
  layer.RequireRank(input, 3);
  if (layer.InputCount() == 2) layer.RequireRank(layer.Input(1), 3);
  SetLikeInput(layer, layer.InputCount() == 1 ? CropBorders(layer, input) : CropLike(layer, input, layer.Input(1)));
}

}  // namespace

LayerRules PaddingLayers() {
  return {{"padding", Padding}, {"constantPad", ConstantPad}, {"crop", Crop}};
}

}  // namespace ulmora::engine::program::layers
