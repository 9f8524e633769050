// Upsampling and resizing: nearest as copies, linear one dimension after another.

#include "engine/cpu/kernels/ResampleAxis.h"
#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/Move.h"
#include "engine/program/ops/ResizeGrid.h"

#include <algorithm>

namespace ulmora::engine::cpu {
namespace {

using program::Interpolation;
using program::ResizedAxis;

/// One dimension done, in a layout of channels and space that stays.
struct Pass {
  ResampleAxis kernel;
  std::int64_t resultBytes = 0;
};

Pass MakePass(const Shape& shape, Layout layout, const ResizedAxis& axis) {
  std::int64_t outer = 1;
  std::int64_t inner = 1;
  bool passed = false;
  for (const Loop& loop : MemoryOrder(shape, layout)) {
    if (loop.axis == axis.axis) {
      passed = true;
    } else {
      (passed ? inner : outer) *= loop.count;
    }
  }
  std::vector<ResampleTap> taps;
  for (std::int64_t i = 0; i < axis.output; ++i) {
    const program::Tap tap = program::TapAt(axis, i);
    taps.push_back({tap.lower, tap.upper, static_cast<float>(tap.weight)});
  }
  const std::int64_t bytes = 4 * outer * axis.output * inner;
  return {ResampleAxis(outer, axis.input, inner, std::move(taps)), bytes};
}

void EmitPasses(Emitter& emitter, const program::Operation& operation, Layout layout, const std::vector<Pass>& passes) {
  BufferId source = emitter.Source(operation.arguments.front().front(), layout);
  for (std::size_t i = 0; i < passes.size(); ++i) {
    const bool isLast = i + 1 == passes.size();
    const BufferId to =
        isLast ? emitter.Result(operation.results.front(), layout) : emitter.Scratch(passes[i].resultBytes);
    emitter.Add([kernel = passes[i].kernel](const Operands& at) { kernel.Run(at.at(0), at.at(1)); }, {source, to});
    source = to;
  }
}

std::vector<Form> LinearForms(const LowerCall& call, std::vector<ResizedAxis> axes) {
  const program::ValueId x = call.Operand("x");
  // Innermost first: then the later passes work on long runs of finished samples.
  std::ranges::sort(axes, std::ranges::greater{}, &ResizedAxis::axis);
  std::vector<Form> forms;
  for (const Layout layout : LayoutsOf(call.ShapeOf(x))) {
    const bool takesChannels = std::ranges::any_of(axes, [](const ResizedAxis& axis) { return axis.axis < 2; });
    if (layout == Layout::Blocked && takesChannels) continue;
    Shape shape = call.ShapeOf(x);
    std::vector<Pass> passes;
    Form form;
    form.plan = {{{x, layout}}, layout, 0.0};
    for (const ResizedAxis& axis : axes) {
      passes.push_back(MakePass(shape, layout, axis));
      shape[axis.axis] = axis.output;
      form.plan.cost += MemoryCost(2 * passes.back().resultBytes) * (layout == Layout::Plain ? 2.0 : 1.0);
    }
    form.emit = [layout, passes](Emitter& emitter, const program::Operation& operation) {
      EmitPasses(emitter, operation, layout, passes);
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

std::vector<Form> LowerResize(const LowerCall& call) {
  const program::ValueId x = call.Operand("x");
  const std::vector<ResizedAxis> axes = program::ResizedAxes(call.call);
  const auto isLinear = [](const ResizedAxis& axis) { return axis.interpolation == Interpolation::Linear; };
  if (!axes.empty() && std::ranges::all_of(axes, isLinear)) {
    return call.IsFloat(x) ? LinearForms(call, axes) : std::vector<Form>();
  }
  if (std::ranges::any_of(axes, isLinear)) return {};
  Move move(call.ShapeOf(x), call.ShapeOf(call.result()));
  for (std::size_t i = 0; i < move.source.size(); ++i) {
    const auto axis = std::ranges::find(axes, i, &ResizedAxis::axis);
    if (axis == axes.end()) {
      move.Keep(i, i);
    } else {
      move.Add(i, i, [&](std::int64_t at) { return program::TapAt(*axis, at).lower; });
    }
  }
  return MoveForms(call, x, {std::move(move)});
}

}  // namespace

std::vector<LoweringEntry> ResizeLowerings() {
  return {{"resize", LowerResize},
          {"resize_bilinear", LowerResize},
          {"resize_nearest_neighbor", LowerResize},
          {"upsample_bilinear", LowerResize},
          {"upsample_nearest_neighbor", LowerResize}};
}

}  // namespace ulmora::engine::cpu
