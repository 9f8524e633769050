// topk, argsort: elements by size. one_hot and non_zero: between indices and marks.

#include "engine/Limits.h"
#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/IntMath.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/Take.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <type_traits>

namespace ulmora::engine::program {
namespace {

std::size_t AxisOfX(const OpCall& call) {
  return static_cast<std::size_t>(call.Axis(call.Int("axis"), call.ShapeOf("x").size()));
}

/// True if a stands before b. NaN counts as larger than everything, as in PyTorch.
template <typename T>
bool Precedes(T a, T b, bool ascending) {
  if constexpr (std::is_floating_point_v<T>) {
    if (std::isnan(a) || std::isnan(b))
      return ascending ? std::isnan(b) && !std::isnan(a) : std::isnan(a) && !std::isnan(b);
  }
  return ascending ? a < b : a > b;
}

/// Positions along the axis in the order of the elements there, the first `count` of them, for every line along the
/// axis: a tensor like x but for the axis. Equal elements stay in their order: the package format leaves that open.
template <typename T>
std::vector<std::int32_t> OrderAlong(std::span<const T> x, const Shape& shape, std::size_t axis, std::int64_t count,
                                     bool ascending) {
  const std::int64_t stride = RowMajorStrides(shape)[axis];
  Shape result = shape;
  result[axis] = count;
  std::vector<std::int32_t> order(static_cast<std::size_t>(ElementCount(result)));
  std::vector<std::int32_t> line(static_cast<std::size_t>(shape[axis]));
  const std::int64_t lines = shape[axis] == 0 ? 0 : std::ssize(x) / shape[axis];
  for (std::int64_t i = 0; i < lines; ++i) {
    const std::int64_t from = i / stride * stride * shape[axis] + i % stride;
    const auto at = [&](std::int32_t place) { return x[static_cast<std::size_t>(from + place * stride)]; };
    std::iota(line.begin(), line.end(), 0);
    std::ranges::stable_sort(line, [&](std::int32_t a, std::int32_t b) { return Precedes(at(a), at(b), ascending); });
    const std::int64_t to = i / stride * stride * count + i % stride;
    for (std::int64_t place = 0; place < count; ++place) {
      order[static_cast<std::size_t>(to + place * stride)] = line[static_cast<std::size_t>(place)];
    }
  }
  return order;
}

std::vector<std::int32_t> OrderOf(const Tensor& x, std::size_t axis, std::int64_t count, bool ascending) {
  return x.storage() == Storage::Float ? OrderAlong(x.floats(), x.shape(), axis, count, ascending)
                                       : OrderAlong(x.ints(), x.shape(), axis, count, ascending);
}

/// -1 stands for all elements.
std::int64_t CountOf(const OpCall& call) {
  const std::int64_t size = call.ShapeOf("x")[AxisOfX(call)];
  const std::int64_t k = call.Int("k");
  if (k < -1 || k > size) {
    call.Fail("k is " + std::to_string(k) + ", but the axis has " + std::to_string(size) + " elements");
  }
  return k == -1 ? size : k;
}

std::vector<TensorType> InferTopK(const OpCall& call) {
  RequireNumbers(call, "x");
  static_cast<void>(call.Bool("ascending"));
  static_cast<void>(call.Bool("sort"));
  TensorType values = call.Type("x");
  values.shape[AxisOfX(call)] = CountOf(call);
  const std::string dtype = call.Text("output_indices_dtype");
  if (dtype != "int32" && dtype != "uint16") {
    call.Fail("output_indices_dtype is '" + dtype + "', expected int32 or uint16");
  }
  if (!call.Bool("return_indices")) return {values};
  return {values, {dtype == "int32" ? ElementType::Int32 : ElementType::UInt16, values.shape}};
}

/// Sorted even where `sort` does not ask for it: then any order will do.
std::vector<Tensor> EvaluateTopK(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const std::vector<TensorType> types = InferTopK(call);
  const std::size_t axis = AxisOfX(call);
  std::vector<std::int32_t> order = OrderOf(x, axis, CountOf(call), call.Bool("ascending"));
  const std::vector<std::int64_t> strides = RowMajorStrides(x.shape());
  const std::vector<std::int64_t> ownStrides = RowMajorStrides(types[0].shape);
  std::vector<Tensor> results = {Take(x, types[0].shape, [&](const Shape& at) {
    const std::int32_t place = order[static_cast<std::size_t>(Offset(at, ownStrides))];
    return Offset(at, strides) + (place - at[axis]) * strides[axis];
  })};
  if (types.size() == 1) return results;
  for (std::int32_t& place : order) place = ClampInt(place, types[1].element);
  results.push_back(Tensor::Ints(types[1].shape, std::move(order), types[1].element));
  return results;
}

std::vector<TensorType> InferArgsort(const OpCall& call) {
  RequireNumbers(call, "x");
  static_cast<void>(AxisOfX(call));
  return {{ElementType::Int32, call.ShapeOf("x")}};
}

std::vector<Tensor> EvaluateArgsort(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const std::size_t axis = AxisOfX(call);
  return {Tensor::Ints(x.shape(), OrderOf(x, axis, x.shape()[axis], call.Bool("ascending")))};
}

/// The indices with a new dimension of one_hot_vector_size at the axis, which is counted in the result.
std::vector<TensorType> InferOneHot(const OpCall& call) {
  RequireInts(call, "indices");
  const std::int64_t size = call.Int("one_hot_vector_size");
  if (size < 0 || size > limits::kMaxTensorElements) {
    call.Fail("one_hot_vector_size is " + std::to_string(size) + ", expected at least 0");
  }
  const Tensor& on = call.Value("on_value");
  const Tensor& off = call.Value("off_value");
  const bool areSingle =
      on.count() == 1 && off.count() == 1 && on.storage() != Storage::String && off.storage() != Storage::String;
  // Where only one of them is given, the other's default has the wrong type, but a value that every type holds.
  if (!areSingle || (on.storage() != off.storage() && call.Has("on_value") && call.Has("off_value"))) {
    call.Fail("on_value is " + std::string(NameOf(on.element())) + " " + ToString(on.shape()) + ", off_value " +
              std::string(NameOf(off.element())) + " " + ToString(off.shape()) + ", expected two single values");
  }
  Shape shape = call.ShapeOf("indices");
  shape.insert(shape.begin() + call.Axis(call.Int("axis"), shape.size() + 1), size);
  return {{call.Has("on_value") ? on.element() : off.element(), std::move(shape)}};
}

float NumberOf(const Tensor& tensor) {
  if (tensor.storage() == Storage::Bool) return tensor.bools().front() != 0 ? 1.0F : 0.0F;
  return tensor.storage() == Storage::Int ? static_cast<float>(tensor.ints().front()) : tensor.floats().front();
}

/// An index beyond the vector, or a negative one, marks nothing.
std::vector<Tensor> EvaluateOneHot(const OpCall& call) {
  const TensorType type = InferOneHot(call).front();
  const std::span<const std::int32_t> indices = call.Value("indices").ints();
  const auto axis = static_cast<std::size_t>(call.Axis(call.Int("axis"), type.shape.size()));
  const float on = NumberOf(call.Value("on_value"));
  const float off = NumberOf(call.Value("off_value"));
  std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("indices"));
  strides.insert(strides.begin() + static_cast<std::ptrdiff_t>(axis), 0);
  std::vector<float> marks;
  if (ElementCount(type.shape) > 0) {
    Shape at(type.shape.size(), 0);
    do {
      marks.push_back(indices[static_cast<std::size_t>(Offset(at, strides))] == at[axis] ? on : off);
    } while (NextIndex(at, type.shape));
  }
  switch (StorageOf(type.element)) {
    case Storage::Int: {
      std::vector<std::int32_t> ints;
      for (const float mark : marks) ints.push_back(FloatToInt(mark, type.element));
      return {Tensor::Ints(type.shape, std::move(ints), type.element)};
    }
    case Storage::Bool: {
      std::vector<std::uint8_t> bools;
      for (const float mark : marks) bools.push_back(mark != 0.0F ? 1 : 0);
      return {Tensor::Bools(type.shape, std::move(bools))};
    }
    default:
      return {Tensor::Floats(type.shape, std::move(marks), type.element)};
  }
}

bool IsZero(const Tensor& x, std::size_t i) {
  switch (x.storage()) {
    case Storage::Int:
      return x.ints()[i] == 0;
    case Storage::Bool:
      return x.bools()[i] == 0;
    default:
      return x.floats()[i] == 0.0F;
  }
}

/// Row-major indices of the elements that are not zero.
std::vector<std::int32_t> NonZeroIndices(const Tensor& x) {
  std::vector<std::int32_t> indices;
  if (x.count() == 0) return indices;
  Shape at(x.shape().size(), 0);
  std::size_t i = 0;
  do {
    if (IsZero(x, i++)) continue;
    for (const std::int64_t index : at) indices.push_back(ClampInt(index, ElementType::Int32));
  } while (NextIndex(at, x.shape()));
  return indices;
}

/// One row for each element that is not zero. Their number depends on the data, so that x must be known.
std::vector<TensorType> InferNonZero(const OpCall& call) {
  RequireData(call, "x");
  const Tensor& x = call.Value("x");
  const std::int64_t rank = std::ssize(x.shape());
  if (rank == 0) call.Fail("x is a single number, expected rank 1 or more");
  return {{ElementType::Int32, {std::ssize(NonZeroIndices(x)) / rank, rank}}};
}

std::vector<Tensor> EvaluateNonZero(const OpCall& call) {
  return {Tensor::Ints(InferNonZero(call).front().shape, NonZeroIndices(call.Value("x")))};
}

}  // namespace

std::vector<OpDefinition> SortOps() {
  const Parameter axis = OptionalConstant("axis", Tensor::Int(-1));
  const Parameter ascending = OptionalConstant("ascending", Tensor::Bool(false));
  return {{"topk",
           {Required("x"), OptionalConstant("k", Tensor::Int(1)), axis, ascending,
            OptionalConstant("sort", Tensor::Bool(true)), OptionalConstant("return_indices", Tensor::Bool(true)),
            OptionalConstant("output_indices_dtype", Tensor::Text("int32"))},
           InferTopK,
           EvaluateTopK},
          {"argsort", {Required("x"), axis, ascending}, InferArgsort, EvaluateArgsort},
          {"one_hot",
           {Required("indices"), RequiredConstant("one_hot_vector_size"), axis,
            OptionalConstant("on_value", Tensor::Int(1)), OptionalConstant("off_value", Tensor::Int(0))},
           InferOneHot,
           EvaluateOneHot},
          {"non_zero", {RequiredConstant("x")}, InferNonZero, EvaluateNonZero}};
}

}  // namespace ulmora::engine::program
