// quantize and dequantize with scales that are constants.

#include "engine/cpu/lower/Broadcasting.h"
#include "engine/cpu/lower/Families.h"
#include "engine/program/ops/QuantizeScales.h"

#include <utility>

namespace ulmora::engine::cpu {
namespace {

/// The input, the scales and the zero points, both in the shape in which they broadcast to the input.
std::vector<BroadcastOperand> OperandsOf(const LowerCall& call) {
  const program::QuantizeScales scales = program::ScalesOf(call.call);
  Shape shape(call.call.ShapeOf("input").size(), 1);
  if (scales.axis) shape[*scales.axis] = static_cast<std::int64_t>(scales.scale.size());
  return {{call.Operand("input"), std::nullopt},
          {0, Tensor::Floats(shape, scales.scale)},
          {0, Tensor::Floats(shape, scales.zeroPoint)}};
}

std::vector<Form> LowerQuantize(const LowerCall& call) {
  const ElementType type = call.program.at(call.result()).type.element;
  return BroadcastForms<std::int32_t, float, float, float>(
      call, [type](float x, float scale, float zero) { return program::Quantized(x, scale, zero, type); },
      OperandsOf(call), KeepsZero::No);
}

std::vector<Form> LowerDequantize(const LowerCall& call) {
  return BroadcastForms<float, std::int32_t, float, float>(
      call, [](std::int32_t q, float scale, float zero) { return scale * (static_cast<float>(q) - zero); },
      OperandsOf(call), KeepsZero::No);
}

}  // namespace

std::vector<LoweringEntry> QuantizeLowerings() {
  return {{"dequantize", LowerDequantize}, {"quantize", LowerQuantize}};
}

}  // namespace ulmora::engine::cpu
