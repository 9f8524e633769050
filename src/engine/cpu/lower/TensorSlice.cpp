// Parts of tensors: slices, crops, single planes; and pad, which is their opposite.

#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/Move.h"
#include "engine/program/ops/PadAxes.h"
#include "engine/program/ops/SliceAxes.h"

#include <algorithm>
#include <bit>

namespace ulmora::engine::cpu {
namespace {

/// True if every parameter but x is known now.
bool ParametersAreKnown(const LowerCall& call) {
  return std::ranges::all_of(call.call.definition().parameters, [&](const program::Parameter& parameter) {
    return parameter.name == "x" || !call.call.Has(parameter.name) || call.call.IsKnown(parameter.name);
  });
}

std::vector<Form> LowerSlice(const LowerCall& call) {
  if (!ParametersAreKnown(call)) return {};
  const std::vector<program::SliceAxis> axes = program::SliceAxes(call.call);
  Move move(call.call.ShapeOf("x"), call.ShapeOf(call.result()));
  std::size_t to = 0;
  for (std::size_t from = 0; from < axes.size(); ++from) {
    const program::SliceAxis& axis = axes[from];
    if (axis.squeezed) {
      move.base[from] = axis.begin;
    } else {
      move.Add(to++, from, [&](std::int64_t i) { return axis.begin + i * axis.stride; });
    }
  }
  return MoveForms(call, call.Operand("x"), {std::move(move)});
}

std::vector<Form> LowerPad(const LowerCall& call) {
  if (!ParametersAreKnown(call)) return {};
  const std::vector<program::PadAxis> axes = program::PadAxes(call.call);
  const program::PadMode mode = program::ModeOfPad(call.call);
  Move move(call.call.ShapeOf("x"), call.ShapeOf(call.result()));
  for (std::size_t axis = 0; axis < axes.size(); ++axis) {
    move.Add(axis, axis, [&](std::int64_t i) {
      const std::int64_t source = program::PadSource(axes[axis], mode, i);
      return source < 0 ? kFiller : source;
    });
  }
  std::array<char, 4> filler{};
  if (mode == program::PadMode::Constant) {
    if (!call.IsFloat(call.Operand("x"))) return {};
    filler = std::bit_cast<std::array<char, 4>>(call.call.Float("constant_val"));
  }
  return MoveForms(call, call.Operand("x"), {std::move(move)}, filler);
}

/// By constant indices: one of them, or a list.
std::vector<Form> LowerGather(const LowerCall& call) {
  if (!ParametersAreKnown(call) || call.call.Int("batch_dims") != 0) return {};
  const Shape& x = call.call.ShapeOf("x");
  const Tensor& indices = call.call.Value("indices");
  if (indices.shape().size() > 1) return {};
  const auto axis = static_cast<std::size_t>(call.call.Axis(call.call.Int("axis"), x.size()));
  std::vector<std::int64_t> picked;
  for (const std::int32_t given : indices.ints()) {
    const std::int64_t index = given < 0 && call.call.opset() < 7 ? given + x[axis] : given;
    if (index < 0 || index >= x[axis]) return {};  // the reference evaluation says what is wrong with it
    picked.push_back(index);
  }
  Move move(x, call.ShapeOf(call.result()));
  std::size_t to = 0;
  for (std::size_t from = 0; from < x.size(); ++from) {
    if (from != axis) {
      move.Keep(to++, from);
    } else if (indices.shape().empty()) {
      move.base[from] = picked.front();
    } else {
      move.Add(to++, from, [&](std::int64_t i) { return picked[static_cast<std::size_t>(i)]; });
    }
  }
  return MoveForms(call, call.Operand("x"), {std::move(move)});
}

}  // namespace

std::vector<LoweringEntry> SliceLowerings() {
  return {{"crop", LowerSlice},    {"gather", LowerGather},        {"pad", LowerPad},
          {"reverse", LowerSlice}, {"slice_by_index", LowerSlice}, {"slice_by_size", LowerSlice}};
}

}  // namespace ulmora::engine::cpu
