// sliding_windows: overlapping runs of elements as a dimension of their own. reverse_sequence: parts turned round.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/Take.h"

#include <string>

namespace ulmora::engine::program {
namespace {

std::size_t AxisOfX(const OpCall& call, std::string_view parameter) {
  return static_cast<std::size_t>(call.Axis(call.Int(parameter), call.ShapeOf("x").size()));
}

/// x[..., d, ...] becomes [..., (d - size) / stride + 1, size, ...].
std::vector<TensorType> InferSlidingWindows(const OpCall& call) {
  RequireData(call, "x");
  TensorType type = call.Type("x");
  const std::size_t axis = AxisOfX(call, "axis");
  const std::int64_t size = call.Int("size");
  const std::int64_t stride = call.Int("stride");
  if (size < 1 || size > type.shape[axis] || stride < 1) {
    call.Fail("size is " + std::to_string(size) + " and stride " + std::to_string(stride) + ", but the axis has " +
              std::to_string(type.shape[axis]) + " elements");
  }
  type.shape[axis] = (type.shape[axis] - size) / stride + 1;
  type.shape.insert(type.shape.begin() + static_cast<std::ptrdiff_t>(axis) + 1, size);
  return {type};
}

std::vector<Tensor> EvaluateSlidingWindows(const OpCall& call) {
  const std::size_t axis = AxisOfX(call, "axis");
  const std::int64_t stride = call.Int("stride");
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("x"));
  return {Take(call.Value("x"), InferSlidingWindows(call).front().shape, [&](const Shape& at) {
    std::int64_t offset = (at[axis] * stride + at[axis + 1]) * strides[axis];
    for (std::size_t i = 0; i < axis; ++i) offset += at[i] * strides[i];
    for (std::size_t i = axis + 1; i < strides.size(); ++i) offset += at[i + 1] * strides[i];
    return offset;
  })};
}

std::vector<TensorType> InferReverseSequence(const OpCall& call) {
  RequireData(call, "x");
  RequireInts(call, "lengths");
  const Shape& x = call.ShapeOf("x");
  const std::size_t batch = AxisOfX(call, "batch_axis");
  if (batch == AxisOfX(call, "seq_axis")) call.Fail("batch_axis and seq_axis are the same");
  RequireShape(call, "lengths", {x[batch]});
  return {call.Type("x")};
}

/// The first lengths[b] elements along seq_axis in the opposite order, the others as they are.
std::vector<Tensor> EvaluateReverseSequence(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  const std::size_t batch = AxisOfX(call, "batch_axis");
  const std::size_t sequence = AxisOfX(call, "seq_axis");
  const std::vector<std::int64_t> strides = RowMajorStrides(x);
  const std::span<const std::int32_t> lengths = call.Value("lengths").ints();
  for (const std::int64_t length : lengths) {
    if (length < 0 || length > x[sequence]) {
      call.Fail("lengths has an entry " + std::to_string(length) + ", expected 0 to " + std::to_string(x[sequence]));
    }
  }
  return {Take(call.Value("x"), x, [&](const Shape& at) {
    const std::int64_t length = lengths[static_cast<std::size_t>(at[batch])];
    const std::int64_t from = at[sequence] < length ? length - 1 - at[sequence] : at[sequence];
    return Offset(at, strides) + (from - at[sequence]) * strides[sequence];
  })};
}

}  // namespace

std::vector<OpDefinition> WindowOps() {
  return {
      {"sliding_windows",
       {Required("x"), RequiredConstant("axis"), RequiredConstant("size"), OptionalConstant("stride", Tensor::Int(1))},
       InferSlidingWindows,
       EvaluateSlidingWindows},
      {"reverse_sequence",
       {Required("x"), Required("lengths"), OptionalConstant("seq_axis", Tensor::Int(0)),
        OptionalConstant("batch_axis", Tensor::Int(0))},
       InferReverseSequence,
       EvaluateReverseSequence}};
}

}  // namespace ulmora::engine::program
