// reshape, reshape_like, transpose, expand_dims, squeeze, flatten2d: the same elements under another shape or order.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/Take.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program {
namespace {

using InferRule = std::vector<TensorType> (*)(const OpCall& call);

/// Operations that leave the order of elements alone.
template <InferRule kInfer>
std::vector<Tensor> EvaluateAsReshape(const OpCall& call) {
  return {call.Value("x").Reshaped(kInfer(call).front().shape)};
}

std::vector<TensorType> Like(const OpCall& call, Shape shape) {
  RequireData(call, "x");
  return {{call.Type("x").element, std::move(shape)}};
}

/// The dimension that a 0 at `position` of the wanted shape stands for. Up to opset 6 it is the one at the same
/// position, and the ranks must be equal; from opset 7 it is the one at the same distance from the right, and 1 beyond
/// the rank of x.
std::int64_t CopiedDim(const OpCall& call, const Shape& wanted, std::size_t position) {
  const Shape& x = call.ShapeOf("x");
  if (call.opset() < 7) {
    if (x.size() != wanted.size()) {
      call.Fail("shape " + ToString(wanted) + " has a 0, but its length is not the rank of x " + ToString(x));
    }
    return x[position];
  }
  const std::size_t fromRight = wanted.size() - position;
  return fromRight <= x.size() ? x[x.size() - fromRight] : 1;
}

/// `shape` with its one -1, if any, replaced so that it has as many elements as x.
Shape InferOpenDim(const OpCall& call, Shape shape) {
  const Shape& x = call.ShapeOf("x");
  const std::int64_t count = CountElements(call, x);
  const auto open = std::ranges::find(shape, -1);
  if (open != shape.end()) {
    *open = 1;
    const std::int64_t known = CountElements(call, shape);
    if (known == 0 || count % known != 0) {
      *open = kUnknownDim;
      call.Fail("x " + ToString(x) + " cannot be reshaped to " + ToString(shape));
    }
    *open = count / known;
  }
  if (CountElements(call, shape) != count) {
    call.Fail("x " + ToString(x) + " cannot be reshaped to " + ToString(shape) + ", which has " +
              std::to_string(CountElements(call, shape)) + " elements, not " + std::to_string(count));
  }
  return shape;
}

std::vector<TensorType> InferReshape(const OpCall& call) {
  const Shape wanted = call.Ints("shape");
  Shape shape = wanted;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    if (wanted[i] < -1) call.Fail("shape has an entry " + std::to_string(wanted[i]) + ", expected at least -1");
    if (wanted[i] == 0) shape[i] = CopiedDim(call, wanted, i);
  }
  if (std::ranges::count(shape, -1) > 1) call.Fail("shape has more than one entry -1");
  return Like(call, InferOpenDim(call, std::move(shape)));
}

/// All operands of a variadic parameter of constants, one after another: lists come as one vector or, as converters
/// write them, as one operand for each entry.
std::vector<std::int64_t> IntsOfAll(const OpCall& call, std::string_view parameter) {
  std::vector<std::int64_t> all;
  for (std::size_t i = 0; i < call.Count(parameter); ++i) {
    RequireInts(call, parameter, i);
    const std::span<const std::int32_t> entries = call.Value(parameter, i).ints();
    all.insert(all.end(), entries.begin(), entries.end());
  }
  return all;
}

std::vector<bool> BoolsOfAll(const OpCall& call, std::string_view parameter) {
  std::vector<bool> all;
  for (std::size_t i = 0; i < call.Count(parameter); ++i) {
    RequireBools(call, parameter, i);
    for (const std::uint8_t entry : call.Value(parameter, i).bools()) all.push_back(entry != 0);
  }
  return all;
}

/// One range per reference: its dimensions [begin, end), or to the last one where the mask is set.
std::vector<TensorType> InferReshapeLike(const OpCall& call) {
  const std::size_t count = call.Count("ref_tensors");
  const std::vector<std::int64_t> begins = IntsOfAll(call, "begins");
  const std::vector<std::int64_t> ends = IntsOfAll(call, "ends");
  const std::vector<bool> masks = BoolsOfAll(call, "end_masks");
  if (begins.size() != count || ends.size() != count || masks.size() != count) {
    call.Fail("begins, ends and end_masks have " + std::to_string(begins.size()) + ", " + std::to_string(ends.size()) +
              " and " + std::to_string(masks.size()) + " entries, expected " + std::to_string(count));
  }
  Shape shape;
  for (std::size_t i = 0; i < count; ++i) {
    const Shape& reference = call.ShapeOf("ref_tensors", i);
    const std::int64_t rank = std::ssize(reference);
    const std::int64_t begin = begins[i] < 0 ? begins[i] + rank : begins[i];
    const std::int64_t end = masks[i] ? rank : ends[i] < 0 ? ends[i] + rank : ends[i];
    if (begin < 0 || begin > end || end > rank) {
      call.Fail("dimensions " + std::to_string(begins[i]) + " to " + std::to_string(ends[i]) + " of ref_tensors[" +
                std::to_string(i) + "] " + ToString(reference) + " do not exist");
    }
    shape.insert(shape.end(), reference.begin() + begin, reference.begin() + end);
  }
  return Like(call, InferOpenDim(call, std::move(shape)));
}

std::vector<std::size_t> Permutation(const OpCall& call) {
  const std::vector<std::int64_t> given = call.Ints("perm");
  const Shape& x = call.ShapeOf("x");
  std::vector<std::size_t> perm;
  for (const std::int64_t axis : given) perm.push_back(static_cast<std::size_t>(call.Axis(axis, x.size())));
  std::vector<std::size_t> sorted = perm;
  std::ranges::sort(sorted);
  const bool repeats = std::ranges::adjacent_find(sorted) != sorted.end();
  if (perm.size() != x.size() || repeats) {
    call.Fail("perm " + ToString(given) + " is no permutation of the " + std::to_string(x.size()) + " dimensions of x");
  }
  return perm;
}

std::vector<TensorType> InferTranspose(const OpCall& call) {
  Shape shape;
  for (const std::size_t axis : Permutation(call)) shape.push_back(call.ShapeOf("x")[axis]);
  return Like(call, std::move(shape));
}

std::vector<Tensor> EvaluateTranspose(const OpCall& call) {
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("x"));
  std::vector<std::int64_t> permuted;
  for (const std::size_t axis : Permutation(call)) permuted.push_back(strides[axis]);
  const Shape result = InferTranspose(call).front().shape;
  return {Take(call.Value("x"), result, [&permuted](const Shape& index) { return Offset(index, permuted); })};
}

/// Marks of the given axes among `rank` dimensions; each at most once.
std::vector<bool> MarkAxes(const OpCall& call, std::size_t rank) {
  std::vector<bool> marked(rank, false);
  for (const std::int64_t given : call.Ints("axes")) {
    const auto axis = static_cast<std::size_t>(call.Axis(given, rank));
    if (marked[axis]) call.Fail("axis " + std::to_string(given) + " is listed twice");
    marked[axis] = true;
  }
  return marked;
}

std::vector<TensorType> InferExpandDims(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  const std::vector<bool> added = MarkAxes(call, x.size() + call.Ints("axes").size());
  Shape shape;
  auto next = x.begin();
  for (const bool isNew : added) shape.push_back(isNew ? 1 : *next++);
  return Like(call, std::move(shape));
}

std::vector<TensorType> InferSqueeze(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  std::vector<bool> dropped(x.size(), false);
  if (call.Has("axes")) {
    dropped = MarkAxes(call, x.size());
  } else {
    for (std::size_t i = 0; i < x.size(); ++i) dropped[i] = x[i] == 1;
  }
  Shape shape;
  for (std::size_t i = 0; i < x.size(); ++i) {
    if (!dropped[i]) {
      shape.push_back(x[i]);
    } else if (x[i] != 1) {
      call.Fail("axis " + std::to_string(i) + " of x " + ToString(x) + " is not of size 1");
    }
  }
  return Like(call, std::move(shape));
}

std::vector<TensorType> InferFlatten(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  // Everything may lie before the axis, so one more position than there are dimensions.
  const std::int64_t given = call.Int("axis");
  const std::int64_t rank = std::ssize(x);
  if (given < -rank || given > rank) {
    call.Fail("axis " + std::to_string(given) + " is outside a tensor of rank " + std::to_string(rank));
  }
  const auto middle = x.begin() + (given < 0 ? given + rank : given);
  return Like(call, {CountElements(call, {x.begin(), middle}), CountElements(call, {middle, x.end()})});
}

Parameter ConstantList(std::string_view name) {
  return {.name = name, .presence = Presence::Variadic, .mustBeConstant = true};
}

}  // namespace

std::vector<OpDefinition> ReshapeOps() {
  return {
      {"reshape", {Required("x"), Required("shape")}, InferReshape, EvaluateAsReshape<InferReshape>},
      {"reshape_like",
       {Required("x"), Parameter{.name = "ref_tensors", .presence = Presence::Variadic, .typeOnly = true},
        ConstantList("begins"), ConstantList("ends"), ConstantList("end_masks")},
       InferReshapeLike,
       EvaluateAsReshape<InferReshapeLike>},
      {"transpose", {Required("x"), RequiredConstant("perm")}, InferTranspose, EvaluateTranspose},
      {"expand_dims", {Required("x"), RequiredConstant("axes")}, InferExpandDims, EvaluateAsReshape<InferExpandDims>},
      {"squeeze", {Required("x"), OptionalConstant("axes")}, InferSqueeze, EvaluateAsReshape<InferSqueeze>},
      {"flatten2d",
       {Required("x"), OptionalConstant("axis", Tensor::Int(1))},
       InferFlatten,
       EvaluateAsReshape<InferFlatten>}};
}

}  // namespace ulmora::engine::program
