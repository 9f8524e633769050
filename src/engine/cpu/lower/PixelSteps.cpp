#include "engine/cpu/lower/PixelSteps.h"

#include "engine/cpu/lower/EltwiseMap.h"
#include "engine/cpu/lower/FusedStep.h"
#include "engine/program/ops/ConvGeometry.h"
#include "engine/program/ops/LayerNormAxes.h"

#include <algorithm>
#include <string_view>

namespace ulmora::engine::cpu {
namespace {

using program::ValueId;
using Kind = PixelStep::Kind;
using Steps = std::vector<ValueStep>;

/// Fewer pixels than this leave most of a run empty.
constexpr std::int64_t kFewestPixels = 16;

/// A step without parameters of its own.
ValueStep StepOf(const LowerCall& call, Kind kind, ValueId from, ValueId to) {
  ValueStep step;
  step.step.kind = kind;
  step.step.channels = call.ShapeOf(to)[1];
  step.from = from;
  step.to = to;
  return step;
}

bool AppendFunction(const LowerCall& call, const onednn::Eltwise& function, ValueId from, ValueId to, Steps& steps) {
  Kind kind = Kind::Relu;
  switch (function.algorithm) {
    case dnnl::algorithm::eltwise_relu:
      break;
    case dnnl::algorithm::eltwise_linear:
      kind = Kind::Linear;
      break;
    case dnnl::algorithm::eltwise_clip:
      kind = Kind::Clip;
      break;
    default:
      return false;
  }
  ValueStep step = StepOf(call, kind, from, to);
  step.step.alpha = function.alpha;
  step.step.beta = function.beta;
  steps.push_back(step);
  return true;
}

/// from <key> other, all of one shape.
bool AppendCombination(const LowerCall& call, std::string_view key, ValueId from, ValueId other, ValueId to,
                       Steps& steps) {
  if (!IsImage(call.program, other) || call.ShapeOf(other) != call.ShapeOf(to)) return false;
  if (key != "add" && key != "sub" && key != "mul") return false;
  ValueStep step = StepOf(call, key == "mul" ? Kind::Multiply : Kind::Add, from, to);
  step.step.alpha = key == "sub" ? -1.0F : 1.0F;
  step.other = other;
  steps.push_back(step);
  return true;
}

/// A fused step, on the result in place.
bool AppendFused(const LowerCall& call, const program::FusedStep& fused, Steps& steps) {
  const ValueId result = call.result();
  if (const auto combination = TensorStepOf(call, fused)) {
    const bool isReversed = combination->key == "sub" && !combination->previousFirst;
    return !isReversed && AppendCombination(call, combination->key, result, combination->other, result, steps);
  }
  const auto functions = FunctionsOf(call, fused);
  return functions && std::ranges::all_of(*functions, [&](const onednn::Eltwise& function) {
           return AppendFunction(call, function, result, result, steps);
         });
}

bool AppendConv(const LowerCall& call, Steps& steps) {
  const program::ConvGeometry g = program::ResolveConv(call.call);
  const bool isPointwise = std::ranges::all_of(g.axes, [](const program::WindowAxis& axis) {
    return axis.kernel == 1 && axis.stride == 1 && axis.padBefore == 0 && axis.padAfter == 0;
  });
  const bool hasBias = call.call.Has("bias");
  if (!isPointwise || g.groups != 1 || !call.call.IsKnown("weight") || (hasBias && !call.call.IsKnown("bias"))) {
    return false;
  }
  ValueStep step = StepOf(call, Kind::Matrix, call.Operand("x"), call.result());
  step.step.inputs = g.inputChannels;
  step.weights = call.Operand("weight");
  if (hasBias) step.bias = call.Operand("bias");
  steps.push_back(step);
  return true;
}

bool AppendNorm(const LowerCall& call, Steps& steps) {
  const auto isKnown = [&](std::string_view name) { return !call.call.Has(name) || call.call.IsKnown(name); };
  if (program::LayerNormAxes(call.call) != std::vector<std::size_t>{1} || !isKnown("gamma") || !isKnown("beta")) {
    return false;
  }
  ValueStep step = StepOf(call, Kind::Norm, call.Operand("x"), call.result());
  step.step.alpha = call.call.Float("epsilon");
  if (call.call.Has("gamma")) step.weights = call.Operand("gamma");
  if (call.call.Has("beta")) step.bias = call.Operand("beta");
  steps.push_back(step);
  return true;
}

bool AppendSplit(const LowerCall& call, Steps& steps) {
  if (call.call.Axis(call.call.Int("axis"), 4) != 1) return false;
  std::int64_t first = 0;
  for (const ValueId result : call.operation.results) {
    ValueStep step = StepOf(call, Kind::Load, call.Operand("x"), result);
    step.firstChannel = first;
    first += step.step.channels;
    steps.push_back(step);
  }
  return true;
}

/// x * factors, one for each channel.
bool AppendScale(const LowerCall& call, ValueId x, ValueId factors, Steps& steps) {
  const Shape& shape = call.ShapeOf(factors);
  const Shape& image = call.ShapeOf(call.result());
  const bool fits = call.IsFloat(factors) && IsImage(call.program, x) && shape.size() == 4 && shape[1] == image[1] &&
                    shape[2] == 1 && shape[3] == 1 && (shape[0] == 1 || shape[0] == image[0]);
  if (!fits || call.ShapeOf(x) != image) return false;
  ValueStep step = StepOf(call, Kind::Scale, x, call.result());
  step.factors = factors;
  step.step.strides.image = shape[0] == 1 ? 0 : shape[1];
  steps.push_back(step);
  return true;
}

bool AppendBinary(const LowerCall& call, Steps& steps) {
  const ValueId x = call.Operand("x");
  const ValueId y = call.Operand("y");
  const std::string_view key = call.operation.definition->key;
  if (IsImage(call.program, x) && call.ShapeOf(x) == call.ShapeOf(call.result()) &&
      AppendCombination(call, key, x, y, call.result(), steps)) {
    return true;
  }
  return key == "mul" && (AppendScale(call, x, y, steps) || AppendScale(call, y, x, steps));
}

bool AppendOperation(const LowerCall& call, Steps& steps) {
  const std::string_view key = call.operation.definition->key;
  if (key == "add" || key == "sub" || key == "mul") return AppendBinary(call, steps);
  const bool isKnown = key == "conv" || key == "layer_norm" || key == "split" || key == "relu" || key == "leaky_relu" ||
                       key == "clip" || key == "relu6" || key == "linear_activation";
  if (!isKnown || !IsImage(call.program, call.Operand("x"))) return false;
  if (key == "conv") return AppendConv(call, steps);
  if (key == "layer_norm") return AppendNorm(call, steps);
  if (key == "split") return AppendSplit(call, steps);
  const auto functions = EltwiseOf(call.call);
  return functions && functions->size() == 1 &&
         AppendFunction(call, functions->front(), call.Operand("x"), call.result(), steps);
}

}  // namespace

bool IsImage(const program::Program& program, ValueId id) {
  const program::Value& value = program.at(id);
  const Shape& shape = value.type.shape;
  return !value.constant && StorageOf(value.type.element) == Storage::Float && shape.size() == 4 &&
         FillsBlocks(shape) && shape[0] * shape[2] * shape[3] >= kFewestPixels;
}

std::optional<Steps> PixelStepsOf(const LowerCall& call) {
  const bool areImages =
      std::ranges::all_of(call.operation.results, [&](ValueId result) { return IsImage(call.program, result); });
  Steps steps;
  if (!areImages || !AppendOperation(call, steps)) return std::nullopt;
  for (const program::FusedStep& fused : call.operation.fused) {
    if (!AppendFused(call, fused, steps)) return std::nullopt;
  }
  return steps;
}

}  // namespace ulmora::engine::cpu
