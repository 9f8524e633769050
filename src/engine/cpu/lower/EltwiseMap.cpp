#include "engine/cpu/lower/EltwiseMap.h"

#include "engine/program/OpRegistry.h"

#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

using Functions = std::vector<onednn::Eltwise>;
using Map = Functions (*)(const program::OpCall&);
using dnnl::algorithm;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

Functions Gelu(const program::OpCall& call) {
  const std::string mode = call.Text("mode");
  if (mode == "TANH_APPROXIMATION") return {{algorithm::eltwise_gelu_tanh}};
  if (mode == "SIGMOID_APPROXIMATION") return {{algorithm::eltwise_swish, 1.702F}};
  return {{algorithm::eltwise_gelu_erf}};
}

/// The library refuses bounds that cross, of which the upper one wins.
Functions Clip(const program::OpCall& call) {
  const float low = call.Float("alpha");
  const float high = call.Float("beta");
  if (low <= high) return {{algorithm::eltwise_clip, low, high}};
  return {{algorithm::eltwise_clip, low, kInfinity}, {algorithm::eltwise_clip, -kInfinity, high}};
}

Functions ClampedRelu(const program::OpCall& call) {
  return {{algorithm::eltwise_relu, call.Float("alpha")}, {algorithm::eltwise_clip, -kInfinity, call.Float("beta")}};
}

Functions HardSigmoid(const program::OpCall& call) {
  return {{algorithm::eltwise_linear, call.Float("alpha"), call.Float("beta")}, {algorithm::eltwise_clip, 0.0F, 1.0F}};
}

Functions ScaledTanh(const program::OpCall& call) {
  return {{algorithm::eltwise_linear, call.Float("beta")},
          {algorithm::eltwise_tanh},
          {algorithm::eltwise_linear, call.Float("alpha")}};
}

/// A function without parameters, with alpha, or with alpha and beta of the same meaning as in the library.
template <algorithm kAlgorithm>
Functions Plain(const program::OpCall&) {
  return {{kAlgorithm}};
}
template <algorithm kAlgorithm>
Functions WithAlpha(const program::OpCall& call) {
  return {{kAlgorithm, call.Float("alpha")}};
}
template <algorithm kAlgorithm>
Functions WithAlphaBeta(const program::OpCall& call) {
  return {{kAlgorithm, call.Float("alpha"), call.Float("beta")}};
}

Functions HardSwish(const program::OpCall& call) {
  const auto function = onednn::HardSwish(call.Float("alpha"), call.Float("beta"));
  return function ? Functions{*function} : Functions{};
}

const std::map<std::string_view, Map>& Table() {
  static const std::map<std::string_view, Map> table = {
      {"abs", Plain<algorithm::eltwise_abs>},
      {"clamped_relu", ClampedRelu},
      {"clip", Clip},
      {"elu", WithAlpha<algorithm::eltwise_elu>},
      {"exp", Plain<algorithm::eltwise_exp>},
      {"gelu", Gelu},
      {"hard_swish", HardSwish},
      {"leaky_relu", WithAlpha<algorithm::eltwise_relu>},
      {"linear_activation", WithAlphaBeta<algorithm::eltwise_linear>},
      {"mish", Plain<algorithm::eltwise_mish>},
      {"relu", Plain<algorithm::eltwise_relu>},
      {"relu6",
       [](const program::OpCall&) -> Functions {
         return {{algorithm::eltwise_clip, 0.0F, 6.0F}};
       }},
      {"round", Plain<algorithm::eltwise_round>},
      {"scaled_tanh", ScaledTanh},
      {"sigmoid", Plain<algorithm::eltwise_logistic>},
      {"sigmoid_hard", HardSigmoid},
      {"silu",
       [](const program::OpCall&) -> Functions {
         return {{algorithm::eltwise_swish, 1.0F}};
       }},
      {"softplus", [](const program::OpCall&) -> Functions { return {onednn::SoftPlus()}; }},
      {"sqrt", Plain<algorithm::eltwise_sqrt>},
      {"square", Plain<algorithm::eltwise_square>},
      {"tanh", Plain<algorithm::eltwise_tanh>},
      {"threshold",
       [](const program::OpCall& call) -> Functions {
         return {{algorithm::eltwise_clip, call.Float("alpha"), kInfinity}};
       }},
  };
  return table;
}

}  // namespace

std::optional<std::vector<onednn::Eltwise>> EltwiseOf(const program::OpCall& call) {
  const auto found = Table().find(call.definition().key);
  if (found == Table().end()) return std::nullopt;
  Functions functions = found->second(call);
  return functions.empty() ? std::nullopt : std::optional(std::move(functions));
}

}  // namespace ulmora::engine::cpu
