// gather, gather_along_axis: elements by index. band_part, cumsum: what else walks along an axis.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Indices.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/Take.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program {
namespace {

std::size_t AxisOfX(const OpCall& call) {
  return static_cast<std::size_t>(call.Axis(call.Int("axis"), call.ShapeOf("x").size()));
}

std::size_t BatchDims(const OpCall& call, std::size_t axis) {
  const Shape& x = call.ShapeOf("x");
  const Shape& indices = call.ShapeOf("indices");
  const std::int64_t dims = call.Int("batch_dims");
  if (dims < 0 || std::cmp_greater(dims, axis) || std::cmp_greater(dims, indices.size()) ||
      !std::equal(x.begin(), x.begin() + dims, indices.begin())) {
    call.Fail("batch_dims is " + std::to_string(dims) + ", but x has shape " + ToString(x) + ", indices " +
              ToString(indices) + " and axis is " + std::to_string(axis));
  }
  return static_cast<std::size_t>(dims);
}

/// x[:axis] + indices[batch_dims:] + x[axis + 1:]
std::vector<TensorType> InferGather(const OpCall& call) {
  RequireData(call, "x");
  RequireInts(call, "indices");
  const Shape& x = call.ShapeOf("x");
  const Shape& indices = call.ShapeOf("indices");
  const std::size_t axis = AxisOfX(call);
  const auto position = static_cast<std::ptrdiff_t>(axis);
  Shape shape(x.begin(), x.begin() + position);
  shape.insert(shape.end(), indices.begin() + static_cast<std::ptrdiff_t>(BatchDims(call, axis)), indices.end());
  shape.insert(shape.end(), x.begin() + position + 1, x.end());
  return {{call.Type("x").element, shape}};
}

std::vector<Tensor> EvaluateGather(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const Tensor& indices = call.Value("indices");
  const std::size_t axis = AxisOfX(call);
  const std::size_t batch = BatchDims(call, axis);
  const std::size_t picked = indices.shape().size() - batch;
  const std::vector<std::int64_t> xStrides = RowMajorStrides(x.shape());
  const std::vector<std::int64_t> indexStrides = RowMajorStrides(indices.shape());
  return {Take(x, InferGather(call).front().shape, [&](const Shape& at) {
    std::int64_t which = 0;
    for (std::size_t i = 0; i < batch; ++i) which += at[i] * indexStrides[i];
    for (std::size_t i = 0; i < picked; ++i) which += at[axis + i] * indexStrides[batch + i];
    const std::int64_t index = ResolveIndex(call, indices.ints()[static_cast<std::size_t>(which)], x.shape()[axis]);
    std::int64_t offset = index * xStrides[axis];
    for (std::size_t i = 0; i < axis; ++i) offset += at[i] * xStrides[i];
    for (std::size_t i = axis + 1; i < xStrides.size(); ++i) offset += at[i + picked - 1] * xStrides[i];
    return offset;
  })};
}

std::vector<TensorType> InferGatherAlongAxis(const OpCall& call) {
  RequireData(call, "x");
  RequireInts(call, "indices");
  Shape expected = call.ShapeOf("x");
  const Shape& indices = call.ShapeOf("indices");
  const std::size_t axis = AxisOfX(call);
  if (indices.size() == expected.size()) expected[axis] = indices[axis];
  if (indices != expected) {
    call.Fail("indices has shape " + ToString(indices) + ", but x has shape " + ToString(call.ShapeOf("x")) +
              "; only axis " + std::to_string(axis) + " may differ");
  }
  return {{call.Type("x").element, indices}};
}

std::vector<Tensor> EvaluateGatherAlongAxis(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const Tensor& indices = call.Value("indices");
  const std::size_t axis = AxisOfX(call);
  const std::vector<std::int64_t> xStrides = RowMajorStrides(x.shape());
  const std::vector<std::int64_t> indexStrides = RowMajorStrides(indices.shape());
  return {Take(x, indices.shape(), [&](const Shape& at) {
    const auto which = static_cast<std::size_t>(Offset(at, indexStrides));
    const std::int64_t index = ResolveIndex(call, indices.ints()[which], x.shape()[axis]);
    return Offset(at, xStrides) + (index - at[axis]) * xStrides[axis];
  })};
}

std::vector<TensorType> InferBandPart(const OpCall& call) {
  RequireData(call, "x");
  if (call.ShapeOf("x").size() < 2) {
    call.Fail("x has shape " + ToString(call.ShapeOf("x")) + ", expected rank 2 or more");
  }
  static_cast<void>(call.Int("lower"));
  static_cast<void>(call.Int("upper"));
  return {call.Type("x")};
}

std::vector<Tensor> EvaluateBandPart(const OpCall& call) {
  const std::int64_t lower = call.Int("lower");
  const std::int64_t upper = call.Int("upper");
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("x"));
  return {Take(call.Value("x"), call.ShapeOf("x"), [&](const Shape& index) {
    const std::int64_t below = index.end()[-2] - index.end()[-1];
    const bool kept = (lower < 0 || below <= lower) && (upper < 0 || -below <= upper);
    return kept ? Offset(index, strides) : kFill;
  })};
}

std::vector<TensorType> InferCumsum(const OpCall& call) {
  RequireNumbers(call, "x");
  static_cast<void>(AxisOfX(call));
  return {call.Type("x")};
}

/// Sums along `axis`, from the last element if `reverse`, each without its own element if `exclusive`.
template <typename T, typename Sum>
std::vector<T> SumAlong(std::span<const T> x, const Shape& shape, std::size_t axis, const OpCall& call) {
  const bool exclusive = call.Bool("exclusive");
  const bool reverse = call.Bool("reverse");
  const std::int64_t stride = RowMajorStrides(shape)[axis];
  const std::int64_t size = shape[axis];
  std::vector<T> result(x.size());
  for (std::int64_t start = 0; start < std::ssize(x); ++start) {
    if (start / stride % size != 0) continue;
    Sum sum = 0;
    for (std::int64_t step = 0; step < size; ++step) {
      const auto i = static_cast<std::size_t>(start + (reverse ? size - 1 - step : step) * stride);
      const Sum with = sum + static_cast<Sum>(x[i]);
      result[i] = static_cast<T>(exclusive ? sum : with);
      sum = with;
    }
  }
  return result;
}

std::vector<Tensor> EvaluateCumsum(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const std::size_t axis = AxisOfX(call);
  if (x.storage() == Storage::Float) {
    return {Tensor::Floats(x.shape(), SumAlong<float, double>(x.floats(), x.shape(), axis, call), x.element())};
  }
  // Integers modulo 2^32: overflow must not be undefined.
  return {Tensor::Ints(x.shape(), SumAlong<std::int32_t, std::uint32_t>(x.ints(), x.shape(), axis, call), x.element())};
}

Parameter Flag(std::string_view name) {
  return OptionalConstant(name, Tensor::Bool(false));
}

}  // namespace

std::vector<OpDefinition> GatherOps() {
  return {{"gather",
           {Required("x"), Required("indices"), OptionalConstant("axis", Tensor::Int(0)),
            OptionalConstant("batch_dims", Tensor::Int(0)), Flag("validate_indices")},
           InferGather,
           EvaluateGather},
          {"gather_along_axis",
           {Required("x"), Required("indices"), OptionalConstant("axis", Tensor::Int(0)), Flag("validate_indices")},
           InferGatherAlongAxis,
           EvaluateGatherAlongAxis},
          {"band_part",
           {Required("x"), OptionalConstant("lower", Tensor::Int(-1)), OptionalConstant("upper", Tensor::Int(-1))},
           InferBandPart,
           EvaluateBandPart},
          {"cumsum",
           {Required("x"), OptionalConstant("axis", Tensor::Int(0)), Flag("exclusive"), Flag("reverse")},
           InferCumsum,
           EvaluateCumsum}};
}

}  // namespace ulmora::engine::program
