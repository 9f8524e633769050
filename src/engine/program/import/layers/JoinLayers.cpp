// concat, split, stack, tile and their kin: blobs from parts and parts from blobs.

#include "engine/program/import/layers/Families.h"

#include <algorithm>

namespace ulmora::engine::program::layers {
namespace {

constexpr std::size_t kAnyNumber = 65'536;

std::vector<Blob> FullInputs(Layer& layer) {
  std::vector<Blob> inputs;
  for (std::size_t i = 0; i < layer.InputCount(); ++i) inputs.push_back(layer.FullInput(i));
  return inputs;
}

Operands ValuesOf(const std::vector<Blob>& blobs) {
  Operands values;
  for (const Blob& blob : blobs) values.push_back(blob.value);
  return values;
}

void Concat(Layer& layer) {
  layer.Require(1, kAnyNumber);
  const bool alongSequence = layer.Bool("sequenceConcat");
  std::vector<Blob> inputs;
  for (std::size_t i = 0; i < layer.InputCount(); ++i) inputs.push_back(layer.Input(i));
  // A sequence of one need not be written out unless it grows or others have one.
  const auto without = [](const Blob& blob) { return blob.withoutSequence; };
  if (alongSequence || !std::ranges::all_of(inputs, without)) inputs = FullInputs(layer);
  layer.RequireRank(inputs.front(), alongSequence ? 5 : 3);
  Blob output = inputs.front();
  output.value = layer.Emit("concat", {{"values", ValuesOf(inputs)}, {"axis", Axis(alongSequence ? -5 : -3)}});
  layer.SetOutput(output);
}

void ConcatNd(Layer& layer) {
  layer.Require(1, kAnyNumber);
  const std::vector<Blob> inputs = FullInputs(layer);
  const ValueId value = layer.Emit("concat", {{"values", ValuesOf(inputs)},
                                              {"axis", Axis(layer.Int("axis"))},
                                              {"interleave", Tensor::Bool(layer.Bool("interleave"))}});
  layer.SetOutput({value, inputs.front().rank});
}

void Stack(Layer& layer) {
  layer.Require(1, kAnyNumber);
  const std::vector<Blob> inputs = FullInputs(layer);
  const ValueId value = layer.Emit("stack", {{"values", ValuesOf(inputs)}, {"axis", Axis(layer.Int("axis"))}});
  layer.SetOutput({value, inputs.front().rank + 1});
}

void SetParts(Layer& layer, const Blob& input, Arguments arguments) {
  const std::vector<ValueId> parts = layer.EmitSeveral("split", std::move(arguments), layer.OutputCount());
  for (std::size_t i = 0; i < parts.size(); ++i) layer.SetOutput({parts[i], input.rank, input.withoutSequence}, i);
}

/// Equal parts of the channels, as many as there are outputs.
void Split(Layer& layer) {
  layer.Require(1, 1, layer.OutputCount());
  const Blob input = layer.Input();
  layer.RequireRank(input, 3);
  const auto count = static_cast<std::int32_t>(layer.OutputCount());
  if (layer.Int("nOutputs") != count) {
    layer.Fail("has " + std::to_string(count) + " outputs, expected " + std::to_string(layer.Int("nOutputs")));
  }
  SetParts(layer, input, {{"x", input}, {"num_splits", Tensor::Int(count)}, {"axis", Axis(-3)}});
}

void SplitNd(Layer& layer) {
  layer.Require(1, 1, layer.OutputCount());
  const Blob input = layer.FullInput();
  Arguments arguments = {{"x", input}, {"axis", Axis(layer.Int("axis"))}};
  const std::vector<std::int32_t> sizes = layer.Ints("splitSizes");
  if (sizes.empty()) {
    arguments.emplace_back("num_splits", Tensor::Int(static_cast<std::int32_t>(layer.Int("numSplits"))));
  } else {
    arguments.emplace_back("split_sizes", Tensor::IntVector(sizes));
  }
  SetParts(layer, input, std::move(arguments));
}

void SequenceRepeat(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  layer.RequireRank(input, 5);
  std::vector<std::int32_t> repetitions(input.rank, 1);
  repetitions[input.rank - 5] = static_cast<std::int32_t>(std::max<std::int64_t>(1, layer.Int("nRepetitions")));
  const ValueId value = layer.Emit("tile", {{"x", input}, {"reps", Tensor::IntVector(std::move(repetitions))}});
  layer.SetOutput({value, input.rank});
}

void Tile(Layer& layer) {
  layer.Require(1, 2);
  const Blob input = layer.FullInput();
  const Argument repetitions =
      layer.InputCount() == 2 ? Argument(layer.Whole(layer.Input(1))) : Argument(Tensor::IntVector(layer.Ints("reps")));
  layer.SetOutput({layer.Emit("tile", {{"x", input}, {"reps", repetitions}}), input.rank});
}

}  // namespace

LayerRules JoinLayers() {
  return {{"concat", Concat}, {"concatND", ConcatNd}, {"stack", Stack},
          {"split", Split},   {"splitND", SplitNd},   {"sequenceRepeat", SequenceRepeat},
          {"tile", Tile}};
}

}  // namespace ulmora::engine::program::layers
