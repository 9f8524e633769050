// concat, stack, split, tile: tensors from parts and parts from tensors.

#include "engine/Limits.h"
#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/JoinParts.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/Take.h"

#include <numeric>
#include <string>

namespace ulmora::engine::program {
namespace {

std::string Numbered(std::size_t index) {
  return "values[" + std::to_string(index) + "]";
}

/// All operands hold the same kind of element.
void RequireOneKind(const OpCall& call) {
  RequireData(call, "values", 0);
  const ElementType first = call.Type("values", 0).element;
  for (std::size_t i = 1; i < call.Count("values"); ++i) {
    const ElementType element = call.Type("values", i).element;
    if (StorageOf(element) != StorageOf(first)) {
      call.Fail(Numbered(i) + " is of type " + std::string(NameOf(element)) + ", but values[0] of type " +
                std::string(NameOf(first)));
    }
  }
}

std::vector<TensorType> InferConcat(const OpCall& call) {
  RequireOneKind(call);
  TensorType type = {call.Type("values", 0).element, PartShape(call, 0)};
  const std::size_t axis = ConcatAxis(call);
  const bool interleave = call.Bool("interleave");
  std::int64_t total = 0;
  for (std::size_t i = 0; i < call.Count("values"); ++i) {
    Shape shape = PartShape(call, i);
    const bool sameRank = call.ShapeOf("values", i).size() == call.ShapeOf("values", 0).size();
    const std::int64_t size = sameRank ? shape[axis] : 0;
    if (sameRank && !interleave) shape[axis] = type.shape[axis];
    if (!sameRank || shape != type.shape) {
      call.Fail(Numbered(i) + " has shape " + ToString(call.ShapeOf("values", i)) + ", but values[0] has shape " +
                ToString(call.ShapeOf("values", 0)) +
                (interleave ? "; interleaved, all must be equal" : "; only axis ") +
                (interleave ? "" : std::to_string(axis) + " may differ"));
    }
    total += size;
  }
  type.shape[axis] = total;
  return {type};
}

std::vector<TensorType> InferStack(const OpCall& call) {
  RequireOneKind(call);
  TensorType type = call.Type("values", 0);
  const std::int64_t axis = call.Axis(call.Int("axis"), type.shape.size() + 1);
  for (std::size_t i = 1; i < call.Count("values"); ++i) {
    if (call.ShapeOf("values", i) != type.shape) {
      call.Fail(Numbered(i) + " has shape " + ToString(call.ShapeOf("values", i)) + ", but values[0] has shape " +
                ToString(type.shape));
    }
  }
  type.shape.insert(type.shape.begin() + axis, static_cast<std::int64_t>(call.Count("values")));
  return {type};
}

/// How the parts are laid one after another: `outer` times, `run` elements of each part in turn, `turns` times.
struct Layout {
  std::int64_t outer = 1;
  std::int64_t turns = 1;
  std::vector<std::int64_t> runs;  ///< of each part
};

template <typename Elements>
auto Lay(const OpCall& call, const Layout& layout, const Elements& elementsOf) {
  using T = typename decltype(elementsOf(call.Value("values", 0)))::value_type;
  std::vector<T> result;
  for (std::int64_t turn = 0; turn < layout.outer * layout.turns; ++turn) {
    for (std::size_t i = 0; i < layout.runs.size(); ++i) {
      const auto run = static_cast<std::size_t>(layout.runs[i]);
      const auto part = elementsOf(call.Value("values", i)).subspan(static_cast<std::size_t>(turn) * run, run);
      result.insert(result.end(), part.begin(), part.end());
    }
  }
  return result;
}

Tensor LayParts(const OpCall& call, const TensorType& type, const Layout& layout) {
  switch (StorageOf(type.element)) {
    case Storage::Int:
      return Tensor::Ints(type.shape, Lay(call, layout, [](const Tensor& t) { return t.ints(); }), type.element);
    case Storage::Bool:
      return Tensor::Bools(type.shape, Lay(call, layout, [](const Tensor& t) { return t.bools(); }));
    default:
      return Tensor::Floats(type.shape, Lay(call, layout, [](const Tensor& t) { return t.floats(); }), type.element);
  }
}

std::int64_t CountOf(const Shape& shape, std::size_t begin, std::size_t end) {
  return std::accumulate(shape.begin() + static_cast<std::ptrdiff_t>(begin),
                         shape.begin() + static_cast<std::ptrdiff_t>(end), std::int64_t{1}, std::multiplies<>());
}

std::vector<Tensor> EvaluateConcat(const OpCall& call) {
  const TensorType type = InferConcat(call).front();
  const std::size_t axis = ConcatAxis(call);
  const bool interleave = call.Bool("interleave");
  Layout layout;
  layout.outer = CountOf(type.shape, 0, axis);
  if (interleave) layout.turns = PartShape(call, 0)[axis];
  const std::int64_t inner = CountOf(type.shape, axis + 1, type.shape.size());
  for (std::size_t i = 0; i < call.Count("values"); ++i) {
    layout.runs.push_back(interleave ? inner : PartShape(call, i)[axis] * inner);
  }
  return {LayParts(call, type, layout)};
}

std::vector<Tensor> EvaluateStack(const OpCall& call) {
  const TensorType type = InferStack(call).front();
  const auto axis = static_cast<std::size_t>(call.Axis(call.Int("axis"), type.shape.size()));
  Layout layout;
  layout.outer = CountOf(type.shape, 0, axis);
  layout.runs.assign(call.Count("values"), CountOf(type.shape, axis + 1, type.shape.size()));
  return {LayParts(call, type, layout)};
}

std::vector<std::int64_t> SplitSizes(const OpCall& call, std::size_t axis) {
  const std::int64_t size = call.ShapeOf("x")[axis];
  if (call.Has("split_sizes")) {
    const std::vector<std::int64_t> sizes = call.Ints("split_sizes");
    std::int64_t total = 0;
    bool fits = true;
    for (const std::int64_t part : sizes) {
      fits = fits && part >= 0 && part <= size;
      if (fits) total += part;
    }
    if (!fits || total != size) {
      call.Fail("split_sizes " + ToString(sizes) + " do not add up to the " + std::to_string(size) +
                " elements of axis " + std::to_string(axis));
    }
    if (call.Has("num_splits") && !std::cmp_equal(call.Int("num_splits"), sizes.size())) {
      call.Fail("num_splits is " + std::to_string(call.Int("num_splits")) + ", but split_sizes has " +
                std::to_string(sizes.size()) + " entries");
    }
    return sizes;
  }
  if (!call.Has("num_splits")) call.Fail("neither num_splits nor split_sizes is given");
  const std::int64_t parts = call.Int("num_splits");
  if (parts < 1 || parts > limits::kMaxOperands || size % parts != 0) {
    call.Fail("axis " + std::to_string(axis) + " of " + std::to_string(size) + " elements cannot be split into " +
              std::to_string(parts) + " equal parts");
  }
  return std::vector<std::int64_t>(static_cast<std::size_t>(parts), size / parts);
}

std::vector<TensorType> InferSplit(const OpCall& call) {
  RequireData(call, "x");
  TensorType type = call.Type("x");
  const auto axis = static_cast<std::size_t>(call.Axis(call.Int("axis"), type.shape.size()));
  std::vector<TensorType> types;
  for (const std::int64_t size : SplitSizes(call, axis)) {
    type.shape[axis] = size;
    types.push_back(type);
  }
  return types;
}

std::vector<Tensor> EvaluateSplit(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const auto axis = static_cast<std::size_t>(call.Axis(call.Int("axis"), x.shape().size()));
  const std::vector<std::int64_t> strides = RowMajorStrides(x.shape());
  std::vector<Tensor> parts;
  std::int64_t first = 0;
  for (const TensorType& type : InferSplit(call)) {
    parts.push_back(Take(x, type.shape, [&strides, shift = first * strides[axis]](const Shape& index) {
      return Offset(index, strides) + shift;
    }));
    first += type.shape[axis];
  }
  return parts;
}

std::vector<TensorType> InferTile(const OpCall& call) {
  RequireData(call, "x");
  TensorType type = call.Type("x");
  const std::vector<std::int64_t> reps = IntsOr(call, "reps", type.shape.size(), 1, 1);
  for (std::size_t i = 0; i < reps.size(); ++i) type.shape[i] *= reps[i];
  return {type};
}

std::vector<Tensor> EvaluateTile(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  const std::vector<std::int64_t> strides = RowMajorStrides(x);
  return {Take(call.Value("x"), InferTile(call).front().shape, [&](const Shape& index) {
    std::int64_t offset = 0;
    for (std::size_t i = 0; i < index.size(); ++i) offset += index[i] % x[i] * strides[i];
    return offset;
  })};
}

}  // namespace

Shape PartShape(const OpCall& call, std::size_t index) {
  const Shape& shape = call.ShapeOf("values", index);
  return shape.empty() ? Shape{1} : shape;
}

std::size_t ConcatAxis(const OpCall& call) {
  return static_cast<std::size_t>(call.Axis(call.Int("axis"), PartShape(call, 0).size()));
}

std::vector<OpDefinition> JoinOps() {
  return {{"concat",
           {Variadic("values"), RequiredConstant("axis"), OptionalConstant("interleave", Tensor::Bool(false))},
           InferConcat,
           EvaluateConcat},
          {"stack", {Variadic("values"), RequiredConstant("axis")}, InferStack, EvaluateStack},
          {"split",
           {Required("x"), OptionalConstant("num_splits"), OptionalConstant("split_sizes"), RequiredConstant("axis")},
           InferSplit,
           EvaluateSplit},
          {"tile", {Required("x"), Required("reps")}, InferTile, EvaluateTile}};
}

}  // namespace ulmora::engine::program
