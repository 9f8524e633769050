// max_pool, avg_pool, l2_pool over [N, C, spatial...].

#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/PoolWindow.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

namespace ulmora::engine::program {
namespace {

void ApplyCeilMode(WindowAxis& axis) {
  const std::int64_t padding = axis.padBefore + axis.padAfter;
  const std::int64_t room = axis.input + padding - axis.kernel;
  axis.output = room + axis.stride - 1 < 0 ? 0 : (room + axis.stride - 1) / axis.stride + 1;
  if (padding > 0 && (axis.output - 1) * axis.stride >= axis.input + axis.padBefore) --axis.output;
}

/// A window without data has no maximum and no mean, so none may be.
void RequireDataInWindows(const OpCall& call, const WindowAxis& axis, std::size_t number) {
  const std::string where = " along spatial axis " + std::to_string(number);
  if (axis.output < 1) {
    call.Fail("kernel " + std::to_string(axis.kernel) + " does not fit into " +
              std::to_string(axis.input + axis.padBefore + axis.padAfter) + " elements" + where);
  }
  const bool firstEmpty = axis.padBefore >= axis.kernel;
  const bool lastEmpty = (axis.output - 1) * axis.stride - axis.padBefore >= axis.input;
  if (firstEmpty || lastEmpty) {
    call.Fail("a window of " + std::to_string(axis.kernel) + " elements lies entirely in the padding" + where);
  }
}

void ResolveAxis(const std::string& padType, bool ceilMode, WindowAxis& axis) {
  if (padType == "same" || padType == "same_lower") {
    PadToSame(axis, padType == "same_lower");
  } else if (ceilMode) {
    ApplyCeilMode(axis);
  } else {
    axis.output = WindowOutput(axis);
  }
}

/// Calls visit(offset) for each element of the window at `index` (of the result), offsets counted within one channel.
template <typename Visit>
std::int64_t VisitWindow(const std::vector<WindowAxis>& axes, const Shape& index, const Visit& visit) {
  Shape begin;
  Shape length;
  Shape plane;
  std::int64_t padded = 1;
  for (std::size_t i = 0; i < axes.size(); ++i) {
    const WindowRange range = WindowAt(axes[i], index[i + 2]);
    begin.push_back(range.begin);
    length.push_back(range.end - range.begin);
    plane.push_back(axes[i].input);
    padded *= range.padded;
  }
  const std::vector<std::int64_t> strides = RowMajorStrides(plane);
  const std::int64_t first = Offset(begin, strides);
  Shape inside(axes.size(), 0);
  do {
    visit(first + Offset(inside, strides));
  } while (NextIndex(inside, length));
  return padded;
}

std::vector<TensorType> InferPool(const OpCall& call) {
  RequireFloats(call, "x");
  RequireRank(call, "x", 3, 5);
  const TensorType& x = call.Type("x");
  Shape shape = {x.shape[0], x.shape[1]};
  for (const WindowAxis& axis : PoolAxes(call)) shape.push_back(axis.output);
  return {{x.element, shape}};
}

/// Folds every window: step(accumulator, element) from `start`, then finish(accumulator, elements, padded elements).
template <typename Step, typename Finish>
std::vector<Tensor> FoldWindows(const OpCall& call, double start, const Step& step, const Finish& finish) {
  const TensorType type = InferPool(call).front();
  const std::vector<WindowAxis> axes = PoolAxes(call);
  const std::span<const float> x = call.Value("x").floats();
  std::int64_t plane = 1;
  for (const WindowAxis& axis : axes) plane *= axis.input;

  std::vector<float> result;
  if (ElementCount(type.shape) > 0) {
    Shape index(type.shape.size(), 0);
    do {
      const std::int64_t channel = (index[0] * type.shape[1] + index[1]) * plane;
      double accumulator = start;
      std::int64_t elements = 0;
      const std::int64_t padded = VisitWindow(axes, index, [&](std::int64_t offset) {
        accumulator = step(accumulator, static_cast<double>(x[static_cast<std::size_t>(channel + offset)]));
        ++elements;
      });
      result.push_back(static_cast<float>(finish(accumulator, elements, padded)));
    } while (NextIndex(index, type.shape));
  }
  return {Tensor::Floats(type.shape, std::move(result), type.element)};
}

std::vector<Tensor> EvaluateMaxPool(const OpCall& call) {
  // A NaN wins, as in PyTorch: it must not vanish from the picture.
  const auto larger = [](double a, double b) { return std::isnan(a) || a > b ? a : b; };
  const auto same = [](double value, std::int64_t, std::int64_t) { return value; };
  return FoldWindows(call, -std::numeric_limits<double>::infinity(), larger, same);
}

std::vector<Tensor> EvaluateAvgPool(const OpCall& call) {
  const bool exclude = call.Bool("exclude_padding_from_average");
  const auto sum = [](double a, double b) { return a + b; };
  return FoldWindows(call, 0.0, sum, [exclude](double total, std::int64_t elements, std::int64_t padded) {
    return total / static_cast<double>(exclude ? elements : padded);
  });
}

std::vector<Tensor> EvaluateL2Pool(const OpCall& call) {
  const auto sumSquares = [](double a, double b) { return a + b * b; };
  const auto root = [](double total, std::int64_t, std::int64_t) { return std::sqrt(total); };
  return FoldWindows(call, 0.0, sumSquares, root);
}

std::vector<Parameter> PoolParameters() {
  return {Required("x"),
          RequiredConstant("kernel_sizes"),
          OptionalConstant("strides"),
          RequiredConstant("pad_type"),
          OptionalConstant("pad"),
          OptionalConstant("ceil_mode", Tensor::Bool(false))};
}

std::vector<Parameter> AvgPoolParameters() {
  std::vector<Parameter> parameters = PoolParameters();
  parameters.push_back(OptionalConstant("exclude_padding_from_average", Tensor::Bool(false)));
  return parameters;
}

}  // namespace

std::vector<WindowAxis> PoolAxes(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  const std::size_t spatial = x.size() - 2;
  const std::string padType = call.Text("pad_type");
  const bool ceilMode = call.Bool("ceil_mode");
  if (padType != "valid" && padType != "same" && padType != "same_lower" && padType != "custom") {
    call.Fail("pad_type is '" + padType + "', expected valid, same, same_lower or custom");
  }
  if (ceilMode && padType.starts_with("same")) call.Fail("ceil_mode does not go with pad_type '" + padType + "'");

  const std::vector<std::int64_t> kernel = IntsOr(call, "kernel_sizes", spatial, 1, 1);
  const std::vector<std::int64_t> strides = IntsOr(call, "strides", spatial, 1, 1);
  // A pad beside another type than custom is ignored, whatever it holds.
  const std::vector<std::int64_t> pad =
      padType == "custom" ? IntsOr(call, "pad", 2 * spatial, 0, 0) : std::vector<std::int64_t>(2 * spatial, 0);
  std::vector<WindowAxis> axes;
  for (std::size_t i = 0; i < spatial; ++i) {
    WindowAxis& axis = axes.emplace_back();
    axis.input = x[i + 2];
    axis.kernel = kernel[i];
    axis.stride = strides[i];
    axis.padBefore = pad[2 * i];
    axis.padAfter = pad[2 * i + 1];
    ResolveAxis(padType, ceilMode, axis);
    RequireDataInWindows(call, axis, i);
  }
  return axes;
}

WindowRange WindowAt(const WindowAxis& axis, std::int64_t output) noexcept {
  const std::int64_t start = output * axis.stride - axis.padBefore;
  const std::int64_t stop = start + axis.kernel;
  return {std::max<std::int64_t>(start, 0), std::min(stop, axis.input),
          std::min(stop, axis.input + axis.padAfter) - start};
}

std::vector<OpDefinition> PoolOps() {
  const std::vector<Parameter> parameters = PoolParameters();
  return {{"avg_pool", AvgPoolParameters(), InferPool, EvaluateAvgPool, true},
          {"l2_pool", parameters, InferPool, EvaluateL2Pool, true},
          {"max_pool", parameters, InferPool, EvaluateMaxPool, true}};
}

}  // namespace ulmora::engine::program
