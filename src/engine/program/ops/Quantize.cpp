// quantize and dequantize: between floats and 8-bit integers at run time.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/IntMath.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/QuantizeScales.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace ulmora::engine::program {
namespace {

ElementType QuantizedType(const OpCall& call) {
  const std::string dtype = call.Text("output_dtype");
  if (dtype != "int8" && dtype != "uint8") call.Fail("output_dtype is '" + dtype + "', expected int8 or uint8");
  return dtype == "int8" ? ElementType::Int8 : ElementType::UInt8;
}

std::vector<TensorType> InferQuantize(const OpCall& call) {
  RequireFloats(call, "input");
  static_cast<void>(ScalesOf(call));
  return {{QuantizedType(call), call.ShapeOf("input")}};
}

std::vector<TensorType> InferDequantize(const OpCall& call) {
  RequireInts(call, "input");
  static_cast<void>(ScalesOf(call));
  return {{call.Type("scale").element, call.ShapeOf("input")}};
}

/// Calls visit(element number, channel) for all elements of the input.
template <typename Visit>
void VisitChannels(const OpCall& call, const QuantizeScales& scales, const Visit& visit) {
  const Shape& shape = call.ShapeOf("input");
  const std::int64_t count = ElementCount(shape);
  const std::int64_t inner = scales.axis ? RowMajorStrides(shape)[*scales.axis] : 1;
  const std::int64_t size = scales.axis ? shape[*scales.axis] : 1;
  for (std::int64_t i = 0; i < count; ++i) {
    visit(static_cast<std::size_t>(i), static_cast<std::size_t>(i / inner % size));
  }
}

std::vector<Tensor> EvaluateQuantize(const OpCall& call) {
  const QuantizeScales scales = ScalesOf(call);
  const ElementType type = QuantizedType(call);
  const std::span<const float> input = call.Value("input").floats();
  std::vector<std::int32_t> result;
  VisitChannels(call, scales, [&](std::size_t i, std::size_t channel) {
    result.push_back(Quantized(input[i], scales.scale[channel], scales.zeroPoint[channel], type));
  });
  return {Tensor::Ints(call.ShapeOf("input"), std::move(result), type)};
}

std::vector<Tensor> EvaluateDequantize(const OpCall& call) {
  const QuantizeScales scales = ScalesOf(call);
  const std::span<const std::int32_t> input = call.Value("input").ints();
  std::vector<float> result;
  VisitChannels(call, scales, [&](std::size_t i, std::size_t channel) {
    result.push_back(scales.scale[channel] * (static_cast<float>(input[i]) - scales.zeroPoint[channel]));
  });
  return {Tensor::Floats(call.ShapeOf("input"), std::move(result), call.Type("scale").element)};
}

}  // namespace

QuantizeScales ScalesOf(const OpCall& call) {
  RequireFloats(call, "scale");
  const Tensor& scale = call.Value("scale");
  const Shape& input = call.ShapeOf("input");
  QuantizeScales scales;
  // One scale for all needs no axis, and ignores it.
  if (!scale.shape().empty()) {
    if (!call.Has("axis")) call.Fail("scale has shape " + ToString(scale.shape()) + ", but there is no axis for it");
    scales.axis = static_cast<std::size_t>(call.Axis(call.Int("axis"), input.size()));
    RequireShape(call, "scale", {input[*scales.axis]});
  }
  scales.scale.assign(scale.floats().begin(), scale.floats().end());
  scales.zeroPoint.assign(scales.scale.size(), 0.0F);
  if (!call.Has("zero_point")) return scales;
  RequireNumbers(call, "zero_point");
  RequireShape(call, "zero_point", scale.shape());
  const Tensor& zero = call.Value("zero_point");
  for (std::size_t i = 0; i < scales.zeroPoint.size(); ++i) {
    scales.zeroPoint[i] = zero.storage() == Storage::Int ? static_cast<float>(zero.ints()[i]) : zero.floats()[i];
  }
  return scales;
}

std::int32_t Quantized(float x, float scale, float zeroPoint, ElementType type) noexcept {
  return FloatToInt(std::nearbyint(x / scale) + zeroPoint, type);
}

std::vector<OpDefinition> QuantizeOps() {
  const std::vector<Parameter> parameters = {Required("input"), OptionalConstant("zero_point"),
                                             RequiredConstant("scale"), OptionalConstant("axis")};
  std::vector<Parameter> withType = parameters;
  withType.push_back(RequiredConstant("output_dtype"));
  return {{"quantize", std::move(withType), InferQuantize, EvaluateQuantize},
          {"dequantize", parameters, InferDequantize, EvaluateDequantize}};
}

}  // namespace ulmora::engine::program
