// Elementwise functions of one tensor. abs, sign, square and exp2 also take integers; logical_not takes bools.

#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/FloatMap.h"
#include "engine/program/ops/IntMath.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace ulmora::engine::program {
namespace {

using Tensors = std::vector<Tensor>;
using Types = std::vector<TensorType>;

/// First opset in which clip refuses bounds that cross.
constexpr int kOrderedClipOpset = 7;

template <double (*kFunction)(double)>
OpDefinition FloatFunction(std::string_view key) {
  return {key, {Required("x")}, LikeFloatX, [](const OpCall& call) { return MapFloats(call, kFunction); }};
}

template <double (*kFloat)(double), std::int64_t (*kInt)(std::int64_t)>
OpDefinition NumberFunction(std::string_view key) {
  return {key,
          {Required("x")},
          [](const OpCall& call) -> Types {
            RequireNumbers(call, "x");
            return {call.Type("x")};
          },
          [](const OpCall& call) -> Tensors {
            const Tensor& x = call.Value("x");
            if (x.storage() == Storage::Float) return MapFloats(call, kFloat);
            std::vector<std::int32_t> result;
            for (const std::int32_t value : x.ints()) result.push_back(ClampInt(kInt(value), x.element()));
            return {Tensor::Ints(x.shape(), std::move(result), x.element())};
          }};
}

/// A function of x + epsilon.
template <double (*kFunction)(double)>
OpDefinition EpsilonFunction(std::string_view key, float epsilon) {
  return {key,
          {Required("x"), OptionalConstant("epsilon", Tensor::Float(epsilon))},
          [](const OpCall& call) {
            static_cast<void>(call.Float("epsilon"));
            return LikeFloatX(call);
          },
          [](const OpCall& call) {
            const double shift = call.Float("epsilon");
            return MapFloats(call, [shift](double x) { return kFunction(x + shift); });
          }};
}

double Sign(double x) {
  return std::isnan(x) ? x : (x > 0 ? 1.0 : 0.0) - (x < 0 ? 1.0 : 0.0);
}
double Square(double x) {
  return x * x;
}
double Inverse(double x) {
  return 1.0 / x;
}
double InverseRoot(double x) {
  return 1.0 / std::sqrt(x);
}

std::int64_t AbsInt(std::int64_t x) {
  return std::abs(x);
}
std::int64_t SignInt(std::int64_t x) {
  return (x > 0 ? 1 : 0) - (x < 0 ? 1 : 0);
}
std::int64_t SquareInt(std::int64_t x) {
  return x * x;  // of a 32-bit number
}
std::int64_t Exp2Int(std::int64_t x) {
  return x < 0 ? 0 : std::int64_t{1} << std::min<std::int64_t>(x, 40);
}

Types InferClip(const OpCall& call) {
  const float low = call.Float("alpha");
  const float high = call.Float("beta");
  if (call.opset() >= kOrderedClipOpset && !(low < high)) {
    call.Fail("alpha is " + std::to_string(low) + ", expected less than beta = " + std::to_string(high));
  }
  return LikeFloatX(call);
}

Tensors EvaluateClip(const OpCall& call) {
  const double low = call.Float("alpha");
  const double high = call.Float("beta");
  // In this order of arguments NaN passes through both.
  return MapFloats(call, [=](double x) { return std::min(std::max(x, low), high); });
}

Types InferThreshold(const OpCall& call) {
  static_cast<void>(call.Float("alpha"));
  return LikeFloatX(call);
}

Tensors EvaluateThreshold(const OpCall& call) {
  const double low = call.Float("alpha");
  return MapFloats(call, [low](double x) { return std::max(x, low); });
}

Types InferLogicalNot(const OpCall& call) {
  RequireBools(call, "x");
  return {call.Type("x")};
}

Tensors EvaluateLogicalNot(const OpCall& call) {
  const Tensor& x = call.Value("x");
  std::vector<std::uint8_t> result;
  for (const std::uint8_t value : x.bools()) result.push_back(value == 0 ? 1 : 0);
  return {Tensor::Bools(x.shape(), std::move(result))};
}

}  // namespace

std::vector<OpDefinition> ElementwiseUnaryOps() {
  return {
      NumberFunction<std::fabs, AbsInt>("abs"),
      NumberFunction<Sign, SignInt>("sign"),
      NumberFunction<Square, SquareInt>("square"),
      NumberFunction<std::exp2, Exp2Int>("exp2"),
      FloatFunction<std::ceil>("ceil"),
      FloatFunction<std::floor>("floor"),
      // Halves go to the even neighbour, which is the rounding mode that the program runs in.
      FloatFunction<std::nearbyint>("round"),
      FloatFunction<std::exp>("exp"),
      FloatFunction<std::sqrt>("sqrt"),
      FloatFunction<std::sin>("sin"),
      FloatFunction<std::cos>("cos"),
      FloatFunction<std::tan>("tan"),
      FloatFunction<std::asin>("asin"),
      FloatFunction<std::acos>("acos"),
      FloatFunction<std::atan>("atan"),
      FloatFunction<std::atanh>("atanh"),
      // The package format has these two as layers of networks only.
      FloatFunction<std::asinh>("asinh"),
      FloatFunction<std::acosh>("acosh"),
      FloatFunction<std::sinh>("sinh"),
      FloatFunction<std::cosh>("cosh"),
      FloatFunction<std::erf>("erf"),
      // 1e-45 is the smallest float32 subnormal.
      EpsilonFunction<std::log>("log", 1e-45F),
      EpsilonFunction<Inverse>("inverse", 1e-4F),
      EpsilonFunction<InverseRoot>("rsqrt", 1e-12F),
      {"clip", {Required("x"), RequiredConstant("alpha"), RequiredConstant("beta")}, InferClip, EvaluateClip},
      {"threshold", {Required("x"), RequiredConstant("alpha")}, InferThreshold, EvaluateThreshold},
      {"logical_not", {Required("x")}, InferLogicalNot, EvaluateLogicalNot},
  };
}

}  // namespace ulmora::engine::program
