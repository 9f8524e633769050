// reduce_*: one value from all elements along some axes. Arithmetic is double inside; integer results are truncated
// towards zero and clamped.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/IntMath.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

namespace ulmora::engine::program {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// Which dimensions of x go, and the shape of what remains.
struct Reduced {
  std::vector<bool> gone;
  Shape groups;  ///< shape of x with the reduced dimensions 1: one index per group
  Shape inside;  ///< shape of x with the kept dimensions 1: the elements of one group
  Shape result;
};

Reduced ReduceShape(const OpCall& call, const std::vector<std::int64_t>& axes, bool keepDims) {
  const Shape& x = call.ShapeOf("x");
  Reduced reduced;
  reduced.gone.assign(x.size(), false);
  for (const std::int64_t given : axes) {
    const auto axis = static_cast<std::size_t>(call.Axis(given, x.size()));
    if (reduced.gone[axis]) call.Fail("axis " + std::to_string(given) + " is listed twice");
    reduced.gone[axis] = true;
  }
  for (std::size_t i = 0; i < x.size(); ++i) {
    reduced.groups.push_back(reduced.gone[i] ? 1 : x[i]);
    reduced.inside.push_back(reduced.gone[i] ? x[i] : 1);
    if (!reduced.gone[i] || keepDims) reduced.result.push_back(reduced.groups.back());
  }
  return reduced;
}

Reduced ReduceAxes(const OpCall& call) {
  std::vector<std::int64_t> axes = call.Has("axes") ? call.Ints("axes") : std::vector<std::int64_t>{};
  // None means all; so does an empty list, as in PyTorch.
  if (axes.empty()) {
    for (std::size_t i = 0; i < call.ShapeOf("x").size(); ++i) axes.push_back(static_cast<std::int64_t>(i));
  }
  return ReduceShape(call, axes, call.Bool("keep_dims"));
}

std::vector<TensorType> InferReduce(const OpCall& call) {
  RequireNumbers(call, "x");
  return {{call.Type("x").element, ReduceAxes(call).result}};
}

/// For each group, in order, the values of its elements.
template <typename Visit>
void VisitGroups(const Tensor& x, const Reduced& reduced, const Visit& visit) {
  if (ElementCount(reduced.groups) == 0) return;
  const std::vector<std::int64_t> strides = RowMajorStrides(x.shape());
  const bool isInt = x.storage() == Storage::Int;
  std::vector<double> values;
  Shape group(reduced.groups.size(), 0);
  do {
    values.clear();
    Shape inside(reduced.inside.size(), 0);
    if (ElementCount(reduced.inside) > 0) {
      do {
        const auto offset = static_cast<std::size_t>(Offset(group, strides) + Offset(inside, strides));
        values.push_back(isInt ? static_cast<double>(x.ints()[offset]) : static_cast<double>(x.floats()[offset]));
      } while (NextIndex(inside, reduced.inside));
    }
    visit(values);
  } while (NextIndex(group, reduced.groups));
}

std::int32_t ToInt(double value, ElementType type) {
  if (std::isnan(value)) return 0;
  constexpr double kBound = 8589934592.0;  // 2^33: exact, and beyond every integer that we hold
  return ClampInt(static_cast<std::int64_t>(std::clamp(value, -kBound, kBound)), type);
}

using Reduction = double (*)(const std::vector<double>& values);

template <Reduction kReduce>
std::vector<Tensor> EvaluateReduce(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const Reduced reduced = ReduceAxes(call);
  std::vector<double> results;
  VisitGroups(x, reduced, [&](const std::vector<double>& values) { results.push_back(kReduce(values)); });
  if (x.storage() == Storage::Float) {
    return {Tensor::Floats(reduced.result, {results.begin(), results.end()}, x.element())};
  }
  std::vector<std::int32_t> ints;
  for (const double result : results) ints.push_back(ToInt(result, x.element()));
  return {Tensor::Ints(reduced.result, std::move(ints), x.element())};
}

double Sum(const std::vector<double>& values) {
  double sum = 0.0;
  for (const double value : values) sum += value;
  return sum;
}

double Mean(const std::vector<double>& values) {
  return Sum(values) / static_cast<double>(values.size());
}

/// NaN wins, as in PyTorch.
double Maximum(const std::vector<double>& values) {
  double best = -kInfinity;
  for (const double value : values) best = std::isnan(best) || best > value ? best : value;
  return best;
}

double Minimum(const std::vector<double>& values) {
  double best = kInfinity;
  for (const double value : values) best = std::isnan(best) || best < value ? best : value;
  return best;
}

double Product(const std::vector<double>& values) {
  double product = 1.0;
  for (const double value : values) product *= value;
  return product;
}

double L1Norm(const std::vector<double>& values) {
  double sum = 0.0;
  for (const double value : values) sum += std::abs(value);
  return sum;
}

double SumSquare(const std::vector<double>& values) {
  double sum = 0.0;
  for (const double value : values) sum += value * value;
  return sum;
}

double L2Norm(const std::vector<double>& values) {
  return std::sqrt(SumSquare(values));
}

double LogSum(const std::vector<double>& values) {
  return std::log(Sum(values));
}

double LogSumExp(const std::vector<double>& values) {
  const double largest = Maximum(values);
  if (!std::isfinite(largest)) return largest;
  double sum = 0.0;
  for (const double value : values) sum += std::exp(value - largest);
  return largest + std::log(sum);
}

Reduced ReduceOneAxis(const OpCall& call) {
  return ReduceShape(call, {call.Int("axis")}, call.Bool("keep_dims"));
}

std::vector<TensorType> InferArg(const OpCall& call) {
  RequireNumbers(call, "x");
  const std::string dtype = call.Text("output_dtype");
  if (dtype != "int32" && dtype != "uint16") {
    call.Fail("output_dtype is '" + dtype + "', expected int32 or uint16");
  }
  const Reduced reduced = ReduceOneAxis(call);
  if (ElementCount(reduced.inside) == 0) call.Fail("x has no elements along the axis");
  return {{dtype == "int32" ? ElementType::Int32 : ElementType::UInt16, reduced.result}};
}

/// Position of the first extreme element; of the first NaN if there is one, as in PyTorch.
template <bool kMaximum>
std::vector<Tensor> EvaluateArg(const OpCall& call) {
  const TensorType type = InferArg(call).front();
  std::vector<std::int32_t> positions;
  VisitGroups(call.Value("x"), ReduceOneAxis(call), [&](const std::vector<double>& values) {
    std::size_t best = 0;
    for (std::size_t i = 1; i < values.size() && !std::isnan(values[best]); ++i) {
      const bool better = kMaximum ? values[i] > values[best] : values[i] < values[best];
      if (better || std::isnan(values[i])) best = i;
    }
    positions.push_back(ClampInt(static_cast<std::int64_t>(best), type.element));
  });
  return {Tensor::Ints(type.shape, std::move(positions), type.element)};
}

OpDefinition Reduce(std::string_view key, std::vector<Tensor> (*evaluate)(const OpCall&)) {
  return {key,
          {Required("x"), OptionalConstant("axes"), OptionalConstant("keep_dims", Tensor::Bool(false))},
          InferReduce,
          evaluate};
}

OpDefinition ReduceArg(std::string_view key, std::vector<Tensor> (*evaluate)(const OpCall&)) {
  return {key,
          {Required("x"), OptionalConstant("axis", Tensor::Int(-1)), OptionalConstant("keep_dims", Tensor::Bool(false)),
           OptionalConstant("output_dtype", Tensor::Text("int32"))},
          InferArg,
          evaluate};
}

}  // namespace

std::vector<OpDefinition> ReductionOps() {
  return {Reduce("reduce_l1_norm", EvaluateReduce<L1Norm>), Reduce("reduce_l2_norm", EvaluateReduce<L2Norm>),
          Reduce("reduce_log_sum", EvaluateReduce<LogSum>), Reduce("reduce_log_sum_exp", EvaluateReduce<LogSumExp>),
          Reduce("reduce_max", EvaluateReduce<Maximum>),    Reduce("reduce_mean", EvaluateReduce<Mean>),
          Reduce("reduce_min", EvaluateReduce<Minimum>),    Reduce("reduce_prod", EvaluateReduce<Product>),
          Reduce("reduce_sum", EvaluateReduce<Sum>),        Reduce("reduce_sum_square", EvaluateReduce<SumSquare>),
          ReduceArg("reduce_argmax", EvaluateArg<true>),    ReduceArg("reduce_argmin", EvaluateArg<false>)};
}

}  // namespace ulmora::engine::program
