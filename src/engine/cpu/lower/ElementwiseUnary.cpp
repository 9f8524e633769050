// Functions of one element: the library's where it has them, ours in double precision where it has not.

#include "engine/cpu/lower/Elementwise.h"
#include "engine/cpu/lower/Families.h"

#include <cmath>

namespace ulmora::engine::cpu {
namespace {

/// A function without parameters.
template <double (*kFunction)(double)>
std::vector<Form> LowerMap(const LowerCall& call) {
  return MapForms(call, [](float x) { return static_cast<float>(kFunction(x)); });
}

double Sign(double x) {
  return std::isnan(x) ? x : static_cast<double>(x > 0.0) - static_cast<double>(x < 0.0);
}

/// Functions of x + epsilon. In double, an epsilon that is subnormal as a float is not flushed to zero.
std::vector<Form> LowerLog(const LowerCall& call) {
  return MapForms(call, [epsilon = static_cast<double>(call.call.Float("epsilon"))](float x) {
    return static_cast<float>(std::log(x + epsilon));
  });
}
std::vector<Form> LowerInverse(const LowerCall& call) {
  return MapForms(call, [epsilon = static_cast<double>(call.call.Float("epsilon"))](float x) {
    return static_cast<float>(1.0 / (x + epsilon));
  });
}
std::vector<Form> LowerRsqrt(const LowerCall& call) {
  return MapForms(call, [epsilon = static_cast<double>(call.call.Float("epsilon"))](float x) {
    return static_cast<float>(1.0 / std::sqrt(x + epsilon));
  });
}

}  // namespace

std::vector<LoweringEntry> ElementwiseUnaryLowerings() {
  return {{"abs", LowerEltwise},
          {"acos", LowerMap<std::acos>},
          {"acosh", LowerMap<std::acosh>},
          {"asin", LowerMap<std::asin>},
          {"asinh", LowerMap<std::asinh>},
          {"atan", LowerMap<std::atan>},
          {"atanh", LowerMap<std::atanh>},
          {"ceil", LowerMap<std::ceil>},
          {"clip", LowerEltwise},
          {"cos", LowerMap<std::cos>},
          {"cosh", LowerMap<std::cosh>},
          {"erf", LowerMap<std::erf>},
          {"exp", LowerEltwise},
          {"exp2", LowerMap<std::exp2>},
          {"floor", LowerMap<std::floor>},
          {"inverse", LowerInverse},
          {"log", LowerLog},
          {"round", LowerEltwise},
          {"rsqrt", LowerRsqrt},
          {"sign", LowerMap<Sign>},
          {"sin", LowerMap<std::sin>},
          {"sinh", LowerMap<std::sinh>},
          {"sqrt", LowerEltwise},
          {"square", LowerEltwise},
          {"tan", LowerMap<std::tan>},
          {"threshold", LowerEltwise}};
}

}  // namespace ulmora::engine::cpu
