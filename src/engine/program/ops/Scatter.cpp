// scatter, scatter_along_axis, slice_update: a copy of a tensor with some elements replaced or combined with others.

#include "engine/program/ops/Scatter.h"

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Indices.h"
#include "engine/program/ops/IntMath.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/SliceAxes.h"

#include <algorithm>
#include <string>
#include <type_traits>

namespace ulmora::engine::program {
namespace {

/// Number is double for floats and int64 for integers; both hold every sum and product of two elements.
template <typename Number>
Number Combined(ScatterMode mode, Number old, Number update) {
  switch (mode) {
    case ScatterMode::Add:
      return old + update;
    case ScatterMode::Subtract:
      return old - update;
    case ScatterMode::Multiply:
      return old * update;
    case ScatterMode::Divide:
      if constexpr (std::is_integral_v<Number>) return update == 0 ? 0 : old / update;
      return old / update;
    case ScatterMode::Maximum:
      return std::max(old, update);
    case ScatterMode::Minimum:
      return std::min(old, update);
    default:
      return update;
  }
}

std::size_t AxisOfData(const OpCall& call) {
  return static_cast<std::size_t>(call.Axis(call.Int("axis"), call.ShapeOf("data").size()));
}

/// updates: data[:axis] + indices + data[axis + 1:]
std::vector<TensorType> InferScatter(const OpCall& call) {
  const Shape& data = call.ShapeOf("data");
  const Shape& indices = call.ShapeOf("indices");
  const auto axis = static_cast<std::ptrdiff_t>(AxisOfData(call));
  Shape expected(data.begin(), data.begin() + axis);
  expected.insert(expected.end(), indices.begin(), indices.end());
  expected.insert(expected.end(), data.begin() + axis + 1, data.end());
  RequireUpdates(call, expected);
  return {call.Type("data")};
}

std::vector<Tensor> EvaluateScatter(const OpCall& call) {
  const Tensor& data = call.Value("data");
  const Tensor& indices = call.Value("indices");
  const std::size_t axis = AxisOfData(call);
  const std::size_t picked = indices.shape().size();
  const std::vector<std::int64_t> dataStrides = RowMajorStrides(data.shape());
  const std::vector<std::int64_t> indexStrides = RowMajorStrides(indices.shape());
  return {Scattered(data, call.Value("updates"), ScatterModeOf(call), [&](const Shape& at) {
    std::int64_t which = 0;
    for (std::size_t i = 0; i < picked; ++i) which += at[axis + i] * indexStrides[i];
    const std::int32_t given = indices.ints()[static_cast<std::size_t>(which)];
    std::int64_t offset = ResolveIndex(call, given, data.shape()[axis]) * dataStrides[axis];
    for (std::size_t i = 0; i < axis; ++i) offset += at[i] * dataStrides[i];
    for (std::size_t i = axis + 1; i < dataStrides.size(); ++i) offset += at[i + picked - 1] * dataStrides[i];
    return offset;
  })};
}

/// updates has the shape of indices, which differs from that of data along the axis alone.
std::vector<TensorType> InferScatterAlongAxis(const OpCall& call) {
  Shape expected = call.ShapeOf("data");
  const Shape& indices = call.ShapeOf("indices");
  const std::size_t axis = AxisOfData(call);
  if (indices.size() == expected.size()) expected[axis] = indices[axis];
  if (indices != expected) {
    call.Fail("indices has shape " + ToString(indices) + ", but data has shape " + ToString(call.ShapeOf("data")) +
              "; only axis " + std::to_string(axis) + " may differ");
  }
  RequireUpdates(call, indices);
  return {call.Type("data")};
}

std::vector<Tensor> EvaluateScatterAlongAxis(const OpCall& call) {
  const Tensor& data = call.Value("data");
  const Tensor& indices = call.Value("indices");
  const std::size_t axis = AxisOfData(call);
  const std::vector<std::int64_t> dataStrides = RowMajorStrides(data.shape());
  const std::vector<std::int64_t> indexStrides = RowMajorStrides(indices.shape());
  return {Scattered(data, call.Value("updates"), ScatterModeOf(call), [&](const Shape& at) {
    const std::int32_t given = indices.ints()[static_cast<std::size_t>(Offset(at, indexStrides))];
    const std::int64_t index = ResolveIndex(call, given, data.shape()[axis]);
    return Offset(at, dataStrides) + (index - at[axis]) * dataStrides[axis];
  })};
}

std::vector<TensorType> InferSliceUpdate(const OpCall& call) {
  RequireData(call, "x");
  RequireData(call, "update");
  const ElementType x = call.Type("x").element;
  const ElementType update = call.Type("update").element;
  if (StorageOf(x) != StorageOf(update)) {
    call.Fail("update is of type " + std::string(NameOf(update)) + ", but x of type " + std::string(NameOf(x)));
  }
  Shape expected;
  for (const SliceAxis& axis : SliceAxes(call)) {
    if (!axis.squeezed) expected.push_back(axis.count);
  }
  RequireShape(call, "update", expected);
  return {call.Type("x")};
}

std::vector<Tensor> EvaluateSliceUpdate(const OpCall& call) {
  const std::vector<SliceAxis> axes = SliceAxes(call);
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("x"));
  return {Scattered(call.Value("x"), call.Value("update"), ScatterMode::Update,
                    [&](const Shape& at) { return SliceOffset(axes, strides, at); })};
}

Parameter AxisParameter() {
  return OptionalConstant("axis", Tensor::Int(0));
}

/// What the package format documents as the default is add; PyTorch has no default here.
Parameter ModeParameter() {
  return OptionalConstant("mode", Tensor::Text("add"));
}

Parameter Validation() {
  return OptionalConstant("validate_indices", Tensor::Bool(false));
}

}  // namespace

ScatterMode ScatterModeOf(const OpCall& call) {
  const std::string mode = call.Text("mode");
  if (mode == "update") return ScatterMode::Update;
  if (mode == "add") return ScatterMode::Add;
  if (mode == "sub") return ScatterMode::Subtract;
  if (mode == "mul") return ScatterMode::Multiply;
  if (mode == "div") return ScatterMode::Divide;
  if (mode == "max") return ScatterMode::Maximum;
  if (mode == "min") return ScatterMode::Minimum;
  call.Fail("mode is '" + mode + "', expected update, add, sub, mul, div, max or min");
}

Tensor Scattered(const Tensor& data, const Tensor& updates, ScatterMode mode, const ScatterTarget& target) {
  const auto forEach = [&](const auto& combine) {
    if (updates.count() == 0) return;
    Shape index(updates.shape().size(), 0);
    std::size_t from = 0;
    do {
      combine(static_cast<std::size_t>(target(index)), from++);
    } while (NextIndex(index, updates.shape()));
  };
  switch (data.storage()) {
    case Storage::Float: {
      std::vector<float> result(data.floats().begin(), data.floats().end());
      forEach([&](std::size_t to, std::size_t from) {
        result[to] = static_cast<float>(
            Combined(mode, static_cast<double>(result[to]), static_cast<double>(updates.floats()[from])));
      });
      return Tensor::Floats(data.shape(), std::move(result), data.element());
    }
    case Storage::Int: {
      std::vector<std::int32_t> result(data.ints().begin(), data.ints().end());
      forEach([&](std::size_t to, std::size_t from) {
        const auto combined = Combined<std::int64_t>(mode, result[to], updates.ints()[from]);
        result[to] = ClampInt(combined, data.element());
      });
      return Tensor::Ints(data.shape(), std::move(result), data.element());
    }
    default: {
      std::vector<std::uint8_t> result(data.bools().begin(), data.bools().end());
      forEach([&](std::size_t to, std::size_t from) { result[to] = updates.bools()[from]; });
      return Tensor::Bools(data.shape(), std::move(result));
    }
  }
}

void RequireUpdates(const OpCall& call, const Shape& expected) {
  RequireNumbers(call, "data");
  RequireInts(call, "indices");
  const ElementType data = call.Type("data").element;
  const ElementType updates = call.Type("updates").element;
  if (StorageOf(data) != StorageOf(updates)) {
    call.Fail("updates is of type " + std::string(NameOf(updates)) + ", but data of type " + std::string(NameOf(data)));
  }
  RequireShape(call, "updates", expected);
  static_cast<void>(ScatterModeOf(call));
}

std::vector<OpDefinition> ScatterOps() {
  return {{"scatter",
           {Required("data"), Required("indices"), Required("updates"), AxisParameter(), ModeParameter(), Validation()},
           InferScatter,
           EvaluateScatter},
          {"scatter_along_axis",
           {Required("data"), Required("indices"), Required("updates"), AxisParameter(), ModeParameter(), Validation()},
           InferScatterAlongAxis,
           EvaluateScatterAlongAxis},
          {"slice_update",
           {Required("x"), Required("update"), Required("begin"), Required("end"), OptionalConstant("stride"),
            OptionalConstant("begin_mask"), OptionalConstant("end_mask"), OptionalConstant("squeeze_mask")},
           InferSliceUpdate,
           EvaluateSliceUpdate}};
}

}  // namespace ulmora::engine::program
