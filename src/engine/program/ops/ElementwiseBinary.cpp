// Elementwise functions of two tensors that broadcast against each other. Arithmetic works on floats or integers,
// comparisons give bools, logical functions take and give them.

#include "engine/program/ops/Broadcasting.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/IntMath.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <cmath>

namespace ulmora::engine::program {
namespace {

using Types = std::vector<TensorType>;
using Tensors = std::vector<Tensor>;
using FloatFunction = double (*)(double, double);
using IntFunction = std::int64_t (*)(std::int64_t, std::int64_t);

constexpr std::array<std::string_view, 2> kOperands = {"x", "y"};

/// function(x, y) for every pair of elements, converted to Out.
template <typename Out, typename In, typename Function>
std::vector<Out> MapPairs(const OpCall& call, const Shape& shape, std::span<const In> x, std::span<const In> y,
                          Function function) {
  std::vector<Out> result;
  result.reserve(static_cast<std::size_t>(ElementCount(shape)));
  VisitBroadcast<2>(shape, {call.ShapeOf("x"), call.ShapeOf("y")}, [&](const std::array<std::size_t, 2>& at) {
    result.push_back(static_cast<Out>(function(x[at[0]], y[at[1]])));
  });
  return result;
}

Types InferArithmetic(const OpCall& call) {
  RequireNumbers(call, "x");
  RequireNumbers(call, "y");
  return {{CommonElement(call, "x", "y"), BroadcastOf(call, kOperands)}};
}

/// Floats are computed in double and rounded once; for single operations that is the float32 result.
template <FloatFunction kFloat, IntFunction kInt>
Tensors EvaluateArithmetic(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const Tensor& y = call.Value("y");
  const Shape shape = BroadcastOf(call, kOperands);
  const ElementType type = CommonElement(call, "x", "y");
  if (x.storage() == Storage::Float) {
    return {Tensor::Floats(shape, MapPairs<float>(call, shape, x.floats(), y.floats(), kFloat), type)};
  }
  const auto clamped = [type](std::int64_t a, std::int64_t b) { return ClampInt(kInt(a, b), type); };
  return {Tensor::Ints(shape, MapPairs<std::int32_t>(call, shape, x.ints(), y.ints(), clamped), type)};
}

template <FloatFunction kFloat, IntFunction kInt>
OpDefinition Arithmetic(std::string_view key) {
  return {key, {Required("x"), Required("y")}, InferArithmetic, EvaluateArithmetic<kFloat, kInt>};
}

Types InferComparison(const OpCall& call) {
  RequireData(call, "x");
  RequireData(call, "y");
  static_cast<void>(CommonElement(call, "x", "y"));
  return {{ElementType::Bool, BroadcastOf(call, kOperands)}};
}

/// double holds every element of every kind exactly.
template <bool (*kFunction)(double, double)>
Tensors EvaluateComparison(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const Tensor& y = call.Value("y");
  const Shape shape = BroadcastOf(call, kOperands);
  const auto compare = [&](const auto& a, const auto& b) {
    return Tensor::Bools(shape, MapPairs<std::uint8_t>(call, shape, a, b, kFunction));
  };
  if (x.storage() == Storage::Float) return {compare(x.floats(), y.floats())};
  if (x.storage() == Storage::Int) return {compare(x.ints(), y.ints())};
  return {compare(x.bools(), y.bools())};
}

template <bool (*kFunction)(double, double)>
OpDefinition Comparison(std::string_view key) {
  return {key, {Required("x"), Required("y")}, InferComparison, EvaluateComparison<kFunction>};
}

Types InferLogical(const OpCall& call) {
  RequireBools(call, "x");
  RequireBools(call, "y");
  return {{ElementType::Bool, BroadcastOf(call, kOperands)}};
}

template <bool (*kFunction)(bool, bool)>
OpDefinition Logical(std::string_view key) {
  return {key, {Required("x"), Required("y")}, InferLogical, [](const OpCall& call) -> Tensors {
            const Shape shape = BroadcastOf(call, kOperands);
            const auto function = [](std::uint8_t a, std::uint8_t b) { return kFunction(a != 0, b != 0); };
            return {Tensor::Bools(shape, MapPairs<std::uint8_t>(call, shape, call.Value("x").bools(),
                                                                call.Value("y").bools(), function))};
          }};
}

/// x - floor(x / y) * y by way of the exact remainder.
double FloorModFloat(double x, double y) {
  const double rest = std::fmod(x, y);
  return rest != 0 && (rest < 0) != (y < 0) ? rest + y : rest;
}

double FloorDivFloat(double x, double y) {
  return std::floor(x / y);
}

/// NaN of either operand wins.
double Maximum(double x, double y) {
  return std::isnan(y) ? y : std::max(x, y);
}
double Minimum(double x, double y) {
  return std::isnan(y) ? y : std::min(x, y);
}

/// Truncates towards zero, as a conversion of the exact quotient would; division by zero gives 0.
std::int64_t TruncatingDiv(std::int64_t x, std::int64_t y) {
  return y == 0 ? 0 : x / y;  // of 32-bit numbers
}

std::int64_t PowClamped(std::int64_t x, std::int64_t y) {
  return PowInt(static_cast<std::int32_t>(x), static_cast<std::int32_t>(y));
}

template <typename T>
T Add(T x, T y) {
  return x + y;
}
template <typename T>
T Subtract(T x, T y) {
  return x - y;
}
template <typename T>
T Multiply(T x, T y) {
  return x * y;
}
double Divide(double x, double y) {
  return x / y;
}
std::int64_t MaximumInt(std::int64_t x, std::int64_t y) {
  return std::max(x, y);
}
std::int64_t MinimumInt(std::int64_t x, std::int64_t y) {
  return std::min(x, y);
}

bool Equal(double x, double y) {
  return x == y;
}
bool NotEqual(double x, double y) {
  return x != y;
}
bool Less(double x, double y) {
  return x < y;
}
bool LessEqual(double x, double y) {
  return x <= y;
}
bool Greater(double x, double y) {
  return x > y;
}
bool GreaterEqual(double x, double y) {
  return x >= y;
}

bool And(bool x, bool y) {
  return x && y;
}
bool Or(bool x, bool y) {
  return x || y;
}
bool Xor(bool x, bool y) {
  return x != y;
}

}  // namespace

std::vector<OpDefinition> ElementwiseBinaryOps() {
  return {
      Arithmetic<Add<double>, Add<std::int64_t>>("add"),
      Arithmetic<Subtract<double>, Subtract<std::int64_t>>("sub"),
      Arithmetic<Multiply<double>, Multiply<std::int64_t>>("mul"),
      Arithmetic<Divide, TruncatingDiv>("real_div"),
      Arithmetic<FloorDivFloat, FloorDiv>("floor_div"),
      Arithmetic<FloorModFloat, FloorMod>("mod"),
      Arithmetic<std::pow, PowClamped>("pow"),
      Arithmetic<Maximum, MaximumInt>("maximum"),
      Arithmetic<Minimum, MinimumInt>("minimum"),
      Comparison<Equal>("equal"),
      Comparison<NotEqual>("not_equal"),
      Comparison<Less>("less"),
      Comparison<LessEqual>("less_equal"),
      Comparison<Greater>("greater"),
      Comparison<GreaterEqual>("greater_equal"),
      Logical<And>("logical_and"),
      Logical<Or>("logical_or"),
      Logical<Xor>("logical_xor"),
  };
}

}  // namespace ulmora::engine::program
