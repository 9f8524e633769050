// Activation functions: elementwise with fixed, scalar or per-channel parameters, and softmax.

#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/FloatMap.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>

namespace ulmora::engine::program {
namespace {

using Types = std::vector<TensorType>;
using Tensors = std::vector<Tensor>;

/// Without parameters.
template <double (*kFunction)(double)>
OpDefinition Plain(std::string_view key) {
  return {key, {Required("x")}, LikeFloatX, [](const OpCall& call) { return MapFloats(call, kFunction); }};
}

/// With a scalar alpha.
template <double (*kFunction)(double, double)>
OpDefinition WithAlpha(std::string_view key) {
  return {key,
          {Required("x"), RequiredConstant("alpha")},
          [](const OpCall& call) -> Types {
            static_cast<void>(call.Float("alpha"));
            return LikeFloatX(call);
          },
          [](const OpCall& call) -> Tensors {
            const double alpha = call.Float("alpha");
            return MapFloats(call, [alpha](double x) { return kFunction(x, alpha); });
          }};
}

/// With scalars alpha and beta.
template <double (*kFunction)(double, double, double)>
OpDefinition WithAlphaBeta(std::string_view key) {
  return {key,
          {Required("x"), RequiredConstant("alpha"), RequiredConstant("beta")},
          [](const OpCall& call) -> Types {
            static_cast<void>(call.Float("alpha"));
            static_cast<void>(call.Float("beta"));
            return LikeFloatX(call);
          },
          [](const OpCall& call) -> Tensors {
            const double alpha = call.Float("alpha");
            const double beta = call.Float("beta");
            return MapFloats(call, [=](double x) { return kFunction(x, alpha, beta); });
          }};
}

double Relu(double x) {
  return std::max(x, 0.0);
}
double Relu6(double x) {
  return std::min(std::max(x, 0.0), 6.0);
}
double Sigmoid(double x) {
  return 1.0 / (1.0 + std::exp(-x));
}
double Silu(double x) {
  return x * Sigmoid(x);
}
double Softsign(double x) {
  return x / (1.0 + std::abs(x));
}
/// ln(1 + e^x) without overflow of the exponential.
double Softplus(double x) {
  return std::max(x, 0.0) + std::log1p(std::exp(-std::abs(x)));
}
double LeakyRelu(double x, double alpha) {
  return x >= 0 ? x : alpha * x;
}
double Elu(double x, double alpha) {
  return x > 0 ? x : alpha * std::expm1(x);
}
double ThresholdedRelu(double x, double alpha) {
  return x >= alpha ? x : 0.0;
}
double SigmoidHard(double x, double alpha, double beta) {
  return std::min(std::max(alpha * x + beta, 0.0), 1.0);
}
double ScaledTanh(double x, double alpha, double beta) {
  return alpha * std::tanh(beta * x);
}
double ClampedRelu(double x, double alpha, double beta) {
  return std::min(x >= 0 ? x : alpha * x, beta);
}
double Affine(double x, double alpha, double beta) {
  return alpha * x + beta;
}

double GeluExact(double x) {
  return 0.5 * x * (1.0 + std::erf(x * std::numbers::sqrt2 / 2.0));
}
double GeluTanh(double x) {
  return 0.5 * x * (1.0 + std::tanh(std::sqrt(2.0 * std::numbers::inv_pi) * (x + 0.044715 * x * x * x)));
}
double GeluSigmoid(double x) {
  return x * Sigmoid(1.702 * x);
}

using FloatFunction = double (*)(double);

FloatFunction GeluOf(const OpCall& call) {
  const std::string mode = call.Text("mode");
  if (mode == "EXACT") return GeluExact;
  if (mode == "TANH_APPROXIMATION") return GeluTanh;
  if (mode == "SIGMOID_APPROXIMATION") return GeluSigmoid;
  call.Fail("mode is '" + mode + "', expected EXACT, TANH_APPROXIMATION or SIGMOID_APPROXIMATION");
}

Types InferGelu(const OpCall& call) {
  static_cast<void>(GeluOf(call));
  return LikeFloatX(call);
}

Tensors EvaluateGelu(const OpCall& call) {
  return MapFloats(call, GeluOf(call));
}

/// x of rank 3 and more, its channels along axis 1.
std::int64_t ChannelsOf(const OpCall& call) {
  RequireFloats(call, "x");
  const Shape& shape = call.ShapeOf("x");
  if (shape.size() < 3) call.Fail("x has shape " + ToString(shape) + ", expected rank 3 or more");
  return shape[1];
}

Types InferPrelu(const OpCall& call) {
  RequireFloatVector(call, "alpha", ChannelsOf(call));
  return LikeFloatX(call);
}

Tensors EvaluatePrelu(const OpCall& call) {
  const std::span<const float> alpha = call.Value("alpha").floats();
  return MapChannels(call, [alpha](double x, std::size_t channel) { return LeakyRelu(x, alpha[channel]); });
}

Types InferSoftplusParametric(const OpCall& call) {
  const std::int64_t channels = ChannelsOf(call);
  RequireFloatVector(call, "alpha", channels);
  RequireFloatVector(call, "beta", channels);
  return LikeFloatX(call);
}

Tensors EvaluateSoftplusParametric(const OpCall& call) {
  const std::span<const float> alpha = call.Value("alpha").floats();
  const std::span<const float> beta = call.Value("beta").floats();
  return MapChannels(call, [alpha, beta](double x, std::size_t channel) {
    return static_cast<double>(alpha[channel]) * Softplus(static_cast<double>(beta[channel]) * x);
  });
}

Types InferSoftmax(const OpCall& call) {
  RequireFloats(call, "x");
  static_cast<void>(call.Axis(call.Int("axis"), call.ShapeOf("x").size()));
  return {call.Type("x")};
}

/// In place over `count` elements, `stride` apart. The maximum is subtracted first, so that no exponential overflows.
void SoftmaxLine(float* line, std::size_t count, std::size_t stride) {
  double highest = line[0];
  for (std::size_t i = 1; i < count; ++i) highest = std::max(highest, static_cast<double>(line[i * stride]));
  double sum = 0.0;
  for (std::size_t i = 0; i < count; ++i) sum += std::exp(line[i * stride] - highest);
  for (std::size_t i = 0; i < count; ++i) {
    line[i * stride] = static_cast<float>(std::exp(line[i * stride] - highest) / sum);
  }
}

Tensors EvaluateSoftmax(const OpCall& call) {
  const Tensor& x = call.Value("x");
  const auto axis = static_cast<std::size_t>(call.Axis(call.Int("axis"), x.shape().size()));
  const auto count = static_cast<std::size_t>(x.shape()[axis]);
  std::size_t stride = 1;
  for (std::size_t i = axis + 1; i < x.shape().size(); ++i) stride *= static_cast<std::size_t>(x.shape()[i]);
  std::vector<float> result(x.floats().begin(), x.floats().end());
  for (std::size_t first = 0; first < result.size(); ++first) {
    if (first / stride % count == 0) SoftmaxLine(result.data() + first, count, stride);
  }
  return {Tensor::Floats(x.shape(), std::move(result), x.element())};
}

}  // namespace

std::vector<OpDefinition> ActivationOps() {
  return {
      Plain<Relu>("relu"),
      Plain<Relu6>("relu6"),
      Plain<Sigmoid>("sigmoid"),
      Plain<Silu>("silu"),
      Plain<Softplus>("softplus"),
      Plain<Softsign>("softsign"),
      Plain<std::tanh>("tanh"),
      WithAlpha<LeakyRelu>("leaky_relu"),
      WithAlpha<Elu>("elu"),
      WithAlpha<ThresholdedRelu>("thresholded_relu"),
      WithAlphaBeta<SigmoidHard>("sigmoid_hard"),
      WithAlphaBeta<ScaledTanh>("scaled_tanh"),
      WithAlphaBeta<ClampedRelu>("clamped_relu"),
      WithAlphaBeta<Affine>("linear_activation"),
      {"gelu", {Required("x"), OptionalConstant("mode", Tensor::Text("EXACT"))}, InferGelu, EvaluateGelu},
      {"prelu", {Required("x"), RequiredConstant("alpha")}, InferPrelu, EvaluatePrelu},
      {"softplus_parametric",
       {Required("x"), RequiredConstant("alpha"), RequiredConstant("beta")},
       InferSoftplusParametric,
       EvaluateSoftplusParametric},
      {"softmax", {Required("x"), OptionalConstant("axis", Tensor::Int(-1))}, InferSoftmax, EvaluateSoftmax},
  };
}

}  // namespace ulmora::engine::program
