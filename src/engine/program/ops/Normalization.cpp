// batch_norm, instance_norm, layer_norm, l2_norm, local_response_norm. Sums are double inside.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/LayerNormAxes.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>

namespace ulmora::engine::program {
namespace {

/// Result of x's type whose elements are value(index, offset).
std::vector<Tensor> MapX(const OpCall& call, const std::function<double(const Shape&, std::size_t)>& value) {
  const Tensor& x = call.Value("x");
  std::vector<float> result;
  result.reserve(static_cast<std::size_t>(x.count()));
  if (x.count() > 0) {
    Shape index(x.shape().size(), 0);
    do {
      result.push_back(static_cast<float>(value(index, result.size())));
    } while (NextIndex(index, x.shape()));
  }
  return {Tensor::Floats(x.shape(), std::move(result), x.element())};
}

/// Elements of an optional float parameter, or `count` times `fallback`.
std::vector<float> FloatsOr(const OpCall& call, std::string_view parameter, std::int64_t count, float fallback) {
  if (!call.Has(parameter)) return std::vector<float>(static_cast<std::size_t>(count), fallback);
  const std::span<const float> floats = call.Value(parameter).floats();
  return {floats.begin(), floats.end()};
}

void RequireChannelVectors(const OpCall& call, std::initializer_list<std::string_view> parameters) {
  const std::int64_t channels = call.ShapeOf("x")[1];
  for (const std::string_view parameter : parameters) {
    if (call.Has(parameter)) RequireFloatVector(call, parameter, channels);
  }
}

/// Mean and biased variance of the group of elements to which each element belongs.
class Moments {
 public:
  Moments(std::span<const float> x, const std::vector<std::size_t>& groupOf, std::size_t groups)
      : mean_(groups, 0.0), variance_(groups, 0.0), groupOf_(groupOf) {
    std::vector<double> count(groups, 0.0);
    for (std::size_t i = 0; i < x.size(); ++i) {
      mean_[groupOf[i]] += static_cast<double>(x[i]);
      count[groupOf[i]] += 1.0;
    }
    for (std::size_t g = 0; g < groups; ++g) mean_[g] /= count[g];
    for (std::size_t i = 0; i < x.size(); ++i) {
      const double distance = static_cast<double>(x[i]) - mean_[groupOf[i]];
      variance_[groupOf[i]] += distance * distance;
    }
    for (std::size_t g = 0; g < groups; ++g) variance_[g] /= count[g];
  }

  [[nodiscard]] double Normalized(double x, std::size_t offset, double epsilon) const {
    const std::size_t group = groupOf_[offset];
    return (x - mean_[group]) / std::sqrt(variance_[group] + epsilon);
  }

 private:
  std::vector<double> mean_;
  std::vector<double> variance_;
  const std::vector<std::size_t>& groupOf_;
};

/// For each element of `shape` the number of its group: elements that differ only along the marked axes share one.
std::vector<std::size_t> GroupsOver(const Shape& shape, const std::vector<bool>& marked, std::size_t& groups) {
  Shape kept;
  for (std::size_t i = 0; i < shape.size(); ++i) kept.push_back(marked[i] ? 1 : shape[i]);
  groups = static_cast<std::size_t>(ElementCount(kept));
  const std::vector<std::int64_t> strides = BroadcastStrides(kept, shape);
  std::vector<std::size_t> groupOf;
  if (ElementCount(shape) > 0) {
    Shape index(shape.size(), 0);
    do {
      groupOf.push_back(static_cast<std::size_t>(Offset(index, strides)));
    } while (NextIndex(index, shape));
  }
  return groupOf;
}

std::vector<TensorType> InferBatchNorm(const OpCall& call) {
  RequireFloats(call, "x");
  RequireRank(call, "x", 3, 5);
  RequireChannelVectors(call, {"mean", "variance", "gamma", "beta"});
  return {call.Type("x")};
}

std::vector<Tensor> EvaluateBatchNorm(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const std::int64_t channels = x.shape()[1];
  const std::span<const float> mean = call.Value("mean").floats();
  const std::span<const float> variance = call.Value("variance").floats();
  const std::vector<float> gamma = FloatsOr(call, "gamma", channels, 1.0F);
  const std::vector<float> beta = FloatsOr(call, "beta", channels, 0.0F);
  const double epsilon = static_cast<double>(call.Float("epsilon"));
  return MapX(call, [&](const Shape& index, std::size_t offset) {
    const auto c = static_cast<std::size_t>(index[1]);
    const double centred = static_cast<double>(x.floats()[offset]) - static_cast<double>(mean[c]);
    const double scale = static_cast<double>(gamma[c]) / std::sqrt(static_cast<double>(variance[c]) + epsilon);
    return centred * scale + static_cast<double>(beta[c]);
  });
}

std::vector<TensorType> InferInstanceNorm(const OpCall& call) {
  RequireFloats(call, "x");
  RequireRank(call, "x", 3, 4);
  RequireChannelVectors(call, {"gamma", "beta"});
  return {call.Type("x")};
}

std::vector<Tensor> EvaluateInstanceNorm(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const std::int64_t channels = x.shape()[1];
  std::vector<bool> spatial(x.shape().size(), true);
  spatial[0] = spatial[1] = false;
  std::size_t groups = 0;
  const std::vector<std::size_t> groupOf = GroupsOver(x.shape(), spatial, groups);
  const Moments moments(x.floats(), groupOf, groups);
  const std::vector<float> gamma = FloatsOr(call, "gamma", channels, 1.0F);
  const std::vector<float> beta = FloatsOr(call, "beta", channels, 0.0F);
  const double epsilon = static_cast<double>(call.Float("epsilon"));
  return MapX(call, [&](const Shape& index, std::size_t offset) {
    const auto c = static_cast<std::size_t>(index[1]);
    const double normal = moments.Normalized(static_cast<double>(x.floats()[offset]), offset, epsilon);
    return normal * static_cast<double>(gamma[c]) + static_cast<double>(beta[c]);
  });
}

std::vector<TensorType> InferLayerNorm(const OpCall& call) {
  RequireFloats(call, "x");
  Shape normalized;
  for (const std::size_t axis : LayerNormAxes(call)) normalized.push_back(call.ShapeOf("x")[axis]);
  for (const std::string_view parameter : {"gamma", "beta"}) {
    if (!call.Has(parameter)) continue;
    RequireFloats(call, parameter);
    RequireShape(call, parameter, normalized);
  }
  return {call.Type("x")};
}

std::vector<Tensor> EvaluateLayerNorm(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const std::vector<std::size_t> axes = LayerNormAxes(call);
  std::vector<bool> marked(x.shape().size(), false);
  Shape normalized;
  for (const std::size_t axis : axes) {
    marked[axis] = true;
    normalized.push_back(x.shape()[axis]);
  }
  std::size_t groups = 0;
  const std::vector<std::size_t> groupOf = GroupsOver(x.shape(), marked, groups);
  const Moments moments(x.floats(), groupOf, groups);
  const std::vector<float> gamma = FloatsOr(call, "gamma", ElementCount(normalized), 1.0F);
  const std::vector<float> beta = FloatsOr(call, "beta", ElementCount(normalized), 0.0F);
  const std::vector<std::int64_t> strides = RowMajorStrides(normalized);
  const double epsilon = static_cast<double>(call.Float("epsilon"));
  return MapX(call, [&](const Shape& index, std::size_t offset) {
    Shape inside;
    for (const std::size_t axis : axes) inside.push_back(index[axis]);
    const auto parameter = static_cast<std::size_t>(Offset(inside, strides));
    const double normal = moments.Normalized(static_cast<double>(x.floats()[offset]), offset, epsilon);
    return normal * static_cast<double>(gamma[parameter]) + static_cast<double>(beta[parameter]);
  });
}

std::vector<TensorType> InferL2Norm(const OpCall& call) {
  RequireFloats(call, "x");
  if (call.ShapeOf("x").size() < 3) {
    call.Fail("x has shape " + ToString(call.ShapeOf("x")) + ", expected rank 3 or more");
  }
  return {call.Type("x")};
}

std::vector<Tensor> EvaluateL2Norm(const OpCall& call) {
  const Tensor& x = call.Value("x");
  std::vector<bool> lastThree(x.shape().size(), false);
  std::fill(lastThree.end() - 3, lastThree.end(), true);
  std::size_t groups = 0;
  const std::vector<std::size_t> groupOf = GroupsOver(x.shape(), lastThree, groups);
  std::vector<double> squares(groups, 0.0);
  for (std::size_t i = 0; i < groupOf.size(); ++i) {
    squares[groupOf[i]] += static_cast<double>(x.floats()[i]) * static_cast<double>(x.floats()[i]);
  }
  const double epsilon = static_cast<double>(call.Float("epsilon"));
  return MapX(call, [&](const Shape&, std::size_t offset) {
    return static_cast<double>(x.floats()[offset]) / std::sqrt(squares[groupOf[offset]] + epsilon);
  });
}

std::vector<TensorType> InferLocalResponseNorm(const OpCall& call) {
  RequireFloats(call, "x");
  RequireRank(call, "x", 3, 5);
  const std::int64_t size = call.Int("size");
  if (size < 1 || size > INT32_MAX) call.Fail("size is " + std::to_string(size) + ", expected at least 1");
  return {call.Type("x")};
}

/// The window of an even size is longer before the channel, and channels are axis 1 at any rank: the package format
/// says neither, PyTorch does both.
std::vector<Tensor> EvaluateLocalResponseNorm(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const std::int64_t size = call.Int("size");
  const double alpha = static_cast<double>(call.Float("alpha"));
  const double beta = static_cast<double>(call.Float("beta"));
  const double k = static_cast<double>(call.Float("k"));
  const std::vector<std::int64_t> strides = RowMajorStrides(x.shape());
  return MapX(call, [&](const Shape& index, std::size_t offset) {
    const std::int64_t first = std::max<std::int64_t>(0, index[1] - size / 2);
    const std::int64_t last = std::min(x.shape()[1] - 1, index[1] + (size - 1) / 2);
    double squares = 0.0;
    for (std::int64_t c = first; c <= last; ++c) {
      const std::int64_t neighbour = static_cast<std::int64_t>(offset) + (c - index[1]) * strides[1];
      const double value = static_cast<double>(x.floats()[static_cast<std::size_t>(neighbour)]);
      squares += value * value;
    }
    const double denominator = std::pow(k + alpha / static_cast<double>(size) * squares, beta);
    return static_cast<double>(x.floats()[offset]) / denominator;
  });
}

Parameter Epsilon(float fallback) {
  return OptionalConstant("epsilon", Tensor::Float(fallback));
}

}  // namespace

std::vector<std::size_t> LayerNormAxes(const OpCall& call) {
  const std::size_t rank = call.ShapeOf("x").size();
  std::vector<std::size_t> axes;
  if (!call.Has("axes")) {
    for (std::size_t i = 0; i < rank; ++i) axes.push_back(i);
    return axes;
  }
  for (const std::int64_t given : call.Ints("axes")) {
    const auto axis = static_cast<std::size_t>(call.Axis(given, rank));
    if (std::ranges::count(axes, axis) > 0) call.Fail("axis " + std::to_string(given) + " is listed twice");
    axes.push_back(axis);
  }
  if (axes.empty()) call.Fail("axes is empty, expected at least one axis");
  return axes;
}

std::vector<OpDefinition> NormalizationOps() {
  return {
      {"batch_norm",
       {Required("x"), RequiredConstant("mean"), RequiredConstant("variance"), OptionalConstant("gamma"),
        OptionalConstant("beta"), Epsilon(1e-5F)},
       InferBatchNorm,
       EvaluateBatchNorm},
      {"instance_norm",
       {Required("x"), OptionalConstant("gamma"), OptionalConstant("beta"), Epsilon(1e-5F)},
       InferInstanceNorm,
       EvaluateInstanceNorm},
      {"layer_norm",
       {Required("x"), OptionalConstant("axes"), OptionalConstant("gamma"), OptionalConstant("beta"), Epsilon(1e-5F)},
       InferLayerNorm,
       EvaluateLayerNorm},
      {"l2_norm", {Required("x"), Epsilon(1e-6F)}, InferL2Norm, EvaluateL2Norm},
      {"local_response_norm",
       {Required("x"), RequiredConstant("size"), OptionalConstant("alpha", Tensor::Float(1e-4F)),
        OptionalConstant("beta", Tensor::Float(0.75F)), OptionalConstant("k", Tensor::Float(1.0F))},
       InferLocalResponseNorm,
       EvaluateLocalResponseNorm}};
}

}  // namespace ulmora::engine::program
