// gather_nd, scatter_nd: elements and parts of a tensor that lists of positions name.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Indices.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/Scatter.h"
#include "engine/program/ops/Take.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program {
namespace {

/// Of scatter_nd and gather_nd: the last dimension of indices holds positions along `depth` dimensions of the data,
/// after `batch` that both have in common.
struct Positions {
  std::size_t batch = 0;
  std::size_t depth = 0;
};

Positions PositionsOf(const OpCall& call, std::string_view data, std::int64_t batch) {
  const Shape& from = call.ShapeOf(data);
  const Shape& indices = call.ShapeOf("indices");
  if (indices.empty()) call.Fail("indices is a single number, expected rank 1 or more");
  const std::string shapes =
      "batch_dims is " + std::to_string(batch) + ", but " + std::string(data) + " has shape " + ToString(from);
  if (batch < 0 || batch >= std::ssize(indices) || batch > std::ssize(from) ||
      !std::equal(indices.begin(), indices.begin() + batch, from.begin())) {
    call.Fail(shapes + " and indices " + ToString(indices));
  }
  if (indices.back() > std::ssize(from) - batch) {
    call.Fail("indices has shape " + ToString(indices) + ", but " + std::string(data) + " has shape " + ToString(from) +
              ", which has no " + std::to_string(indices.back()) + " dimensions to index");
  }
  return {static_cast<std::size_t>(batch), static_cast<std::size_t>(indices.back())};
}

/// indices[:-1] + data[batch + depth:]
Shape PickedShape(const Shape& indices, const Shape& data, const Positions& positions) {
  Shape shape(indices.begin(), indices.end() - 1);
  shape.insert(shape.end(), data.begin() + static_cast<std::ptrdiff_t>(positions.batch + positions.depth), data.end());
  return shape;
}

/// Offset in data of the element that stands at `at` in a tensor of the picked shape.
std::int64_t PickedOffset(const OpCall& call, const Tensor& data, const Tensor& indices, const Positions& positions,
                          const Shape& at) {
  const std::vector<std::int64_t> strides = RowMajorStrides(data.shape());
  const std::size_t lists = indices.shape().size() - 1;
  std::int64_t list = 0;
  for (std::size_t i = 0; i < lists; ++i) list = list * indices.shape()[i] + at[i];
  std::int64_t offset = 0;
  for (std::size_t i = 0; i < positions.batch; ++i) offset += at[i] * strides[i];
  for (std::size_t i = 0; i < positions.depth; ++i) {
    const auto which = static_cast<std::size_t>(list) * positions.depth + i;
    const std::size_t axis = positions.batch + i;
    offset += ResolveIndex(call, indices.ints()[which], data.shape()[axis]) * strides[axis];
  }
  for (std::size_t i = positions.batch + positions.depth; i < strides.size(); ++i) {
    offset += at[lists + i - positions.batch - positions.depth] * strides[i];
  }
  return offset;
}

std::vector<TensorType> InferScatterNd(const OpCall& call) {
  const Positions positions = PositionsOf(call, "data", 0);
  RequireUpdates(call, PickedShape(call.ShapeOf("indices"), call.ShapeOf("data"), positions));
  return {call.Type("data")};
}

std::vector<Tensor> EvaluateScatterNd(const OpCall& call) {
  const Tensor& data = call.Value("data");
  const Tensor& indices = call.Value("indices");
  const Positions positions = PositionsOf(call, "data", 0);
  return {Scattered(data, call.Value("updates"), ScatterModeOf(call),
                    [&](const Shape& at) { return PickedOffset(call, data, indices, positions, at); })};
}

std::vector<TensorType> InferGatherNd(const OpCall& call) {
  RequireData(call, "x");
  RequireInts(call, "indices");
  const Positions positions = PositionsOf(call, "x", call.Int("batch_dims"));
  return {{call.Type("x").element, PickedShape(call.ShapeOf("indices"), call.ShapeOf("x"), positions)}};
}

std::vector<Tensor> EvaluateGatherNd(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const Tensor& indices = call.Value("indices");
  const Positions positions = PositionsOf(call, "x", call.Int("batch_dims"));
  return {Take(x, InferGatherNd(call).front().shape,
               [&](const Shape& at) { return PickedOffset(call, x, indices, positions, at); })};
}

}  // namespace

std::vector<OpDefinition> ScatterNdOps() {
  const Parameter validation = OptionalConstant("validate_indices", Tensor::Bool(false));
  return {{"gather_nd",
           {Required("x"), Required("indices"), OptionalConstant("batch_dims", Tensor::Int(0)), validation},
           InferGatherNd,
           EvaluateGatherNd},
          {"scatter_nd",
           {Required("data"), Required("indices"), Required("updates"), OptionalConstant("mode", Tensor::Text("add")),
            validation},
           InferScatterNd,
           EvaluateScatterNd}};
}

}  // namespace ulmora::engine::program
