// reduce, over planes and channels, the reductions over any axes, argMax, argMin and cumSum.

#include "engine/program/import/layers/Families.h"

#include <string>
#include <utility>

namespace ulmora::engine::program::layers {
namespace {

std::vector<std::int32_t> AxesNamed(const std::string& axis) {
  if (axis == "CHW") return {-3, -2, -1};
  if (axis == "HW") return {-2, -1};
  if (axis == "C") return {-3};
  return {axis == "H" ? -2 : -1};
}

constexpr std::pair<const char*, const char*> kModes[] = {
    {"SUM", "reduce_sum"},
    {"AVG", "reduce_mean"},
    {"PROD", "reduce_prod"},
    {"LOGSUM", "reduce_sum"},
    {"L1", "reduce_l1_norm"},
    {"L2", "reduce_l2_norm"},
    {"SUMSQUARE", "reduce_sum_square"},
    {"MAX", "reduce_max"},
    {"MIN", "reduce_min"},
};

ValueId ArgMaxAlong(Layer& layer, const std::vector<std::int32_t>& axes) {
  if (axes.size() != 1) layer.Fail("looks for the largest of several axes, expected one");
  const ValueId position =
      layer.Emit("reduce_argmax", {{"x", layer.Input()}, {"axis", Axis(axes[0])}, {"keep_dims", Tensor::Bool(true)}});
  return layer.AsFloats(position);
}

void Reduce(Layer& layer) {
  layer.Require(1, 1);
  layer.RequireRank(layer.Input(), 3);
  const std::vector<std::int32_t> axes = AxesNamed(layer.Text("axis"));
  const std::string& mode = layer.Text("mode");
  if (mode == "ARGMAX") {
    SetLikeInput(layer, ArgMaxAlong(layer, axes));
    return;
  }
  ValueId x = layer.Input().value;
  // The sum of the logarithms of x + epsilon, not the logarithm of the sum.
  if (mode == "LOGSUM") x = layer.Emit("log", {{"x", x}, {"epsilon", Tensor::Float(layer.FloatOr("epsilon", 1e-6F))}});
  for (const auto& [name, operation] : kModes) {
    if (mode != name) continue;
    SetLikeInput(
        layer, layer.Emit(operation, {{"x", x}, {"axes", Tensor::IntVector(axes)}, {"keep_dims", Tensor::Bool(true)}}));
  }
}

template <const char* kOperation>
void ReduceAxes(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  std::vector<std::int32_t> axes = layer.Ints("axes");
  if (layer.Bool("reduceAll")) axes.clear();
  if (axes.size() > input.rank) layer.Fail("has " + std::to_string(axes.size()) + " axes, but its input less");
  const bool keep = layer.Bool("keepDims");
  Arguments arguments = {{"x", input}, {"keep_dims", Tensor::Bool(keep)}};
  const std::size_t reduced = axes.empty() ? input.rank : axes.size();
  if (!axes.empty()) arguments.emplace_back("axes", Tensor::IntVector(std::move(axes)));
  const ValueId value = layer.Emit(kOperation, std::move(arguments));
  layer.SetOutput({value, keep ? input.rank : input.rank - reduced});
}

template <const char* kOperation>
void ArgExtreme(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const bool keep = !layer.Bool("removeDim");
  const ValueId position =
      layer.Emit(kOperation, {{"x", input}, {"axis", Axis(layer.Int("axis"))}, {"keep_dims", Tensor::Bool(keep)}});
  layer.SetOutput({layer.AsFloats(position), keep ? input.rank : input.rank - 1});
}

void CumSum(Layer& layer) {
  layer.Require(1, 1);
  const Blob input = layer.FullInput();
  const ValueId value = layer.Emit("cumsum", {{"x", input},
                                              {"axis", Axis(layer.Int("axis"))},
                                              {"exclusive", Tensor::Bool(layer.Bool("excludeFinalSum"))},
                                              {"reverse", Tensor::Bool(layer.Bool("reverse"))}});
  layer.SetOutput({value, input.rank});
}

constexpr char kL1[] = "reduce_l1_norm";
constexpr char kL2[] = "reduce_l2_norm";
constexpr char kMax[] = "reduce_max";
constexpr char kMin[] = "reduce_min";
constexpr char kSum[] = "reduce_sum";
constexpr char kProd[] = "reduce_prod";
constexpr char kMean[] = "reduce_mean";
constexpr char kLogSum[] = "reduce_log_sum";
constexpr char kSumSquare[] = "reduce_sum_square";
constexpr char kLogSumExp[] = "reduce_log_sum_exp";
constexpr char kArgMax[] = "reduce_argmax";
constexpr char kArgMin[] = "reduce_argmin";

}  // namespace

LayerRules ReductionLayers() {
  return {
      {"reduce", Reduce},
      {"reduceL1", ReduceAxes<kL1>},
      {"reduceL2", ReduceAxes<kL2>},
      {"reduceMax", ReduceAxes<kMax>},
      {"reduceMin", ReduceAxes<kMin>},
      {"reduceSum", ReduceAxes<kSum>},
      {"reduceProd", ReduceAxes<kProd>},
      {"reduceMean", ReduceAxes<kMean>},
      {"reduceLogSum", ReduceAxes<kLogSum>},
      {"reduceSumSquare", ReduceAxes<kSumSquare>},
      {"reduceLogSumExp", ReduceAxes<kLogSumExp>},
      {"argMax", ArgExtreme<kArgMax>},
      {"argMin", ArgExtreme<kArgMin>},
      {"cumSum", CumSum},
  };
}

}  // namespace ulmora::engine::program::layers
