// reduce_*: sums, means, extremes and norms along some dimensions.

#include "engine/cpu/kernels/Reduce.h"
#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/ReduceViews.h"

#include <cmath>
#include <limits>

namespace ulmora::engine::cpu {
namespace {

/// Sum of function(x).
template <double (*kFunction)(double)>
struct SumOf {
  using State = double;
  static State Start() { return 0.0; }
  static void Add(State& state, float value) { state += kFunction(static_cast<double>(value)); }
  static void Merge(State& state, State other) { state += other; }
};

double Itself(double x) {
  return x;
}
double Magnitude(double x) {
  return std::abs(x);
}
double Square(double x) {
  return x * x;
}

struct Product {
  using State = double;
  static State Start() { return 1.0; }
  static void Add(State& state, float value) { state *= static_cast<double>(value); }
  static void Merge(State& state, State other) { state *= other; }
};

/// The extremes keep a NaN once they have met one.
struct Largest {
  using State = double;
  static State Start() { return -std::numeric_limits<double>::infinity(); }
  static void Add(State& state, float value) { Merge(state, static_cast<double>(value)); }
  static void Merge(State& state, State other) { state = state > other || state != state ? state : other; }
};
struct Smallest {
  using State = double;
  static State Start() { return std::numeric_limits<double>::infinity(); }
  static void Add(State& state, float value) { Merge(state, static_cast<double>(value)); }
  static void Merge(State& state, State other) { state = state < other || state != state ? state : other; }
};

/// What becomes of the reduced value of `count` elements.
using Finish = double (*)(double value, double count);

double AsIs(double value, double) {
  return value;
}
double Mean(double value, double count) {
  return value / count;
}
double Root(double value, double) {
  return std::sqrt(value);
}
double Logarithm(double value, double) {
  return std::log(value);
}

std::vector<bool> ReducedAxes(const LowerCall& call) {
  const std::size_t rank = call.call.ShapeOf("x").size();
  const std::vector<std::int64_t> axes = call.call.Has("axes") ? call.call.Ints("axes") : std::vector<std::int64_t>{};
  std::vector<bool> reduced(rank, axes.empty());
  for (const std::int64_t axis : axes) reduced[static_cast<std::size_t>(call.call.Axis(axis, rank))] = true;
  return reduced;
}

/// The layout of a result in memory order [outer, inner] when x lies in `layout`: its own if the result has the same
/// dimensions; otherwise plain, if channels and space are not both left.
std::optional<Layout> ResultLayout(const LowerCall& call, Layout layout, const std::vector<bool>& reduced) {
  const Shape& result = call.ShapeOf(call.result());
  if (layout == Layout::Plain || result.size() == reduced.size()) return layout;
  for (std::size_t axis = 2; axis < reduced.size(); ++axis) {
    if (!reduced[axis] && !reduced[1]) return std::nullopt;
  }
  return Layout::Plain;
}

template <typename Accumulator, Finish kFinish>
std::vector<Form> LowerReduce(const LowerCall& call) {
  const program::ValueId x = call.Operand("x");
  if (!call.IsFloat(x)) return {};
  const Shape& shape = call.ShapeOf(x);
  const std::vector<bool> reduced = ReducedAxes(call);
  std::vector<Form> forms;
  for (const Layout layout : LayoutsOf(shape)) {
    const std::optional<ReduceView> view = ViewOf(shape, layout, reduced);
    const std::optional<Layout> result = ResultLayout(call, layout, reduced);
    if (!view || !result) continue;
    Form form;
    form.plan = {{{x, layout}}, *result, 2.0 * MemoryCost(4 * ElementCount(shape))};
    form.emit = [x, layout, result = *result, reducer = Reducer<Accumulator>(*view), count = view->count](
                    Emitter& emitter, const program::Operation& operation) {
      const BufferId source = emitter.Source(x, layout);
      const BufferId scratch = emitter.Scratch(reducer.ScratchBytes());
      emitter.Add(
          [reducer, count](const Operands& at) {
            float* to = at.at(2);
            reducer.Run(at.at(0), at.at<void>(1), [&](std::int64_t i, double value) {
              to[i] = static_cast<float>(kFinish(value, static_cast<double>(count)));
            });
          },
          {source, scratch, emitter.Result(operation.results.front(), result)});
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

}  // namespace

std::vector<LoweringEntry> ReductionLowerings() {
  return {{"reduce_l1_norm", LowerReduce<SumOf<Magnitude>, AsIs>},
          {"reduce_l2_norm", LowerReduce<SumOf<Square>, Root>},
          {"reduce_log_sum", LowerReduce<SumOf<Itself>, Logarithm>},
          {"reduce_max", LowerReduce<Largest, AsIs>},
          {"reduce_mean", LowerReduce<SumOf<Itself>, Mean>},
          {"reduce_min", LowerReduce<Smallest, AsIs>},
          {"reduce_prod", LowerReduce<Product, AsIs>},
          {"reduce_sum", LowerReduce<SumOf<Itself>, AsIs>},
          {"reduce_sum_square", LowerReduce<SumOf<Square>, AsIs>}};
}

}  // namespace ulmora::engine::cpu
