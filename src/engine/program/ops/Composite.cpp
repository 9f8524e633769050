// hard_swish and mish: operations that packages write out in several and that the rewriting passes put together.

#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/FloatMap.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <cmath>

namespace ulmora::engine::program {
namespace {

/// x * min(max(alpha * x + beta, 0), 1)
std::vector<Tensor> EvaluateHardSwish(const OpCall& call) {
  const auto alpha = static_cast<double>(call.Float("alpha"));
  const auto beta = static_cast<double>(call.Float("beta"));
  return MapFloats(call, [alpha, beta](double x) { return x * std::clamp(alpha * x + beta, 0.0, 1.0); });
}

/// x * tanh(ln(1 + exp(x)))
std::vector<Tensor> EvaluateMish(const OpCall& call) {
  return MapFloats(call, [](double x) { return x * std::tanh(x > 30.0 ? x : std::log1p(std::exp(x))); });
}

}  // namespace

std::vector<OpDefinition> CompositeOps() {
  return {{"hard_swish",
           {Required("x"), RequiredConstant("alpha"), RequiredConstant("beta")},
           LikeFloatX,
           EvaluateHardSwish},
          {"mish", {Required("x")}, LikeFloatX, EvaluateMish}};
}

}  // namespace ulmora::engine::program
