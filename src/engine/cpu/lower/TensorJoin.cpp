// concat and stack put tensors beside each other; split and tile take them apart and repeat them.

#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/Move.h"
#include "engine/program/ops/JoinParts.h"

#include <algorithm>
#include <memory>

namespace ulmora::engine::cpu {
namespace {

/// Where one operand goes: at `offset` of the result, by loops with the result's strides.
struct Part {
  std::shared_ptr<const SeparableCopy> copy;
  std::int64_t offsetBytes = 0;
};

/// An operand of concat or stack: its shape with as many dimensions as the result, and the index along the axis that
/// its element i takes there, first + i * step.
struct Joined {
  program::ValueId value = 0;
  Shape shape;
  std::int64_t first = 0;
  std::int64_t step = 1;
};

/// None if the operand's channels do not take whole blocks of the result.
std::optional<Part> PlacePart(const Joined& part, const Shape& result, std::size_t axis, Layout layout,
                              std::int64_t elementBytes) {
  if (layout == Layout::Blocked && !FillsBlocks(part.shape)) return std::nullopt;
  const bool splitsBlocks = layout == Layout::Blocked && axis == 1;
  if (splitsBlocks && (part.step != 1 || part.first % onednn::ChannelBlock() != 0)) return std::nullopt;
  const std::int64_t offset = AxisOffsets(result, layout, axis)[static_cast<std::size_t>(part.first)];
  // The operand's loops in the order of its memory, which is that of the result's memory, too.
  const std::vector<Loop> own = MemoryOrder(part.shape, layout);
  std::vector<CopyLoop> loops(own.size());
  std::int64_t ownStride = 1;
  std::int64_t stride = 1;
  const std::vector<Loop> all = MemoryOrder(result, layout);
  for (std::size_t i = own.size(); i-- > 0;) {
    const bool isAxis = own[i].axis == axis;
    loops[i].stride = isAxis ? stride * part.step : stride;
    for (std::int64_t at = 0; at < own[i].count; ++at) loops[i].sources.push_back(at * ownStride);
    ownStride *= own[i].count;
    stride *= all[i].count;
  }
  return Part{std::make_shared<const SeparableCopy>(std::move(loops), elementBytes), offset * elementBytes};
}

std::optional<Form> JoinForm(const LowerCall& call, const std::vector<Joined>& parts, std::size_t axis, Layout layout) {
  const Shape& result = call.ShapeOf(call.result());
  const std::int64_t elementBytes = ElementBytes(StorageOf(call.program.at(call.result()).type.element));
  Form form;
  form.plan.result = layout;
  form.plan.cost = MemoryCost(8 * ElementCount(result));
  std::vector<Part> placed;
  for (const Joined& part : parts) {
    auto place = PlacePart(part, result, axis, layout, elementBytes);
    if (!place) return std::nullopt;
    placed.push_back(std::move(*place));
    if (!call.program.at(part.value).constant) form.plan.needs.push_back({part.value, layout});
  }
  form.emit = [placed, parts, layout](Emitter& emitter, const program::Operation& operation) {
    const BufferId whole = emitter.Result(operation.results.front(), layout);
    for (std::size_t i = 0; i < parts.size(); ++i) {
      emitter.Add(
          [part = placed[i]](const Operands& at) {
            constexpr float kUnused = 0.0F;
            part.copy->Run(at.at<char>(0), at.at<char>(1) + part.offsetBytes, &kUnused);
          },
          {emitter.Source(parts[i].value, layout), whole});
    }
  };
  return form;
}

std::vector<Form> JoinForms(const LowerCall& call, const std::vector<Joined>& parts, std::size_t axis, bool plainOnly) {
  std::vector<Form> forms;
  for (const Layout layout : LayoutsOf(call.ShapeOf(call.result()))) {
    if (layout != Layout::Plain && (plainOnly || !call.IsFloat(call.result()))) continue;
    auto form = JoinForm(call, parts, axis, layout);
    if (form) forms.push_back(std::move(*form));
  }
  return forms;
}

std::vector<Form> LowerConcat(const LowerCall& call) {
  const std::size_t axis = program::ConcatAxis(call.call);
  const bool interleave = call.call.Bool("interleave");
  const auto count = static_cast<std::int64_t>(call.call.Count("values"));
  std::vector<Joined> parts;
  std::int64_t first = 0;
  for (std::int64_t i = 0; i < count; ++i) {
    const program::ValueId value = call.Operand("values", static_cast<std::size_t>(i));
    const Shape shape = program::PartShape(call.call, static_cast<std::size_t>(i));
    if (ElementCount(shape) == 0) continue;  // a constant: nothing of it lies anywhere in the result
    parts.push_back({value, shape, interleave ? i : first, interleave ? count : 1});
    first += shape[axis];
  }
  return JoinForms(call, parts, axis, false);
}

std::vector<Form> LowerStack(const LowerCall& call) {
  const std::size_t rank = call.ShapeOf(call.result()).size();
  const std::int64_t axis = call.call.Axis(call.call.Int("axis"), rank);
  std::vector<Joined> parts;
  for (std::size_t i = 0; i < call.call.Count("values"); ++i) {
    const program::ValueId value = call.Operand("values", i);
    Shape shape = call.ShapeOf(value);
    shape.insert(shape.begin() + axis, 1);
    parts.push_back({value, std::move(shape), static_cast<std::int64_t>(i), 1});
  }
  return JoinForms(call, parts, static_cast<std::size_t>(axis), true);
}

std::vector<Form> LowerSplit(const LowerCall& call) {
  const Shape& x = call.call.ShapeOf("x");
  const auto axis = static_cast<std::size_t>(call.call.Axis(call.call.Int("axis"), x.size()));
  std::vector<Move> moves;
  std::int64_t begin = 0;
  for (const program::ValueId result : call.operation.results) {
    Move move(x, call.ShapeOf(result));
    for (std::size_t i = 0; i < x.size(); ++i) {
      const std::int64_t first = i == axis ? begin : 0;
      move.Add(i, i, [first](std::int64_t at) { return first + at; });
    }
    begin += move.result[axis];
    moves.push_back(std::move(move));
  }
  return MoveForms(call, call.Operand("x"), std::move(moves));
}

std::vector<Form> LowerTile(const LowerCall& call) {
  Move move(call.call.ShapeOf("x"), call.ShapeOf(call.result()));
  for (std::size_t i = 0; i < move.source.size(); ++i) {
    move.Add(i, i, [size = move.source[i]](std::int64_t at) { return at % size; });
  }
  return MoveForms(call, call.Operand("x"), {std::move(move)});
}

}  // namespace

std::vector<LoweringEntry> JoinLowerings() {
  return {{"concat", LowerConcat}, {"split", LowerSplit}, {"stack", LowerStack}, {"tile", LowerTile}};
}

}  // namespace ulmora::engine::cpu
