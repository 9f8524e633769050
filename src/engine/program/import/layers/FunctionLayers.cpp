// Elementwise functions of one input: unary, whose parameters say which one, clip, and those with a layer of their own.

#include "engine/program/import/layers/Families.h"

#include <string>

namespace ulmora::engine::program::layers {
namespace {

constexpr float kEpsilon = 1e-6F;

/// scale * x + shift; a scale of zero stands for one.
ValueId ScaledAndShifted(Layer& layer) {
  ValueId x = layer.Input().value;
  const float scale = layer.FloatOr("scale", 1.0F);
  const float shift = layer.Float("shift");
  if (scale != 1.0F) x = layer.Emit("mul", {{"x", x}, {"y", Tensor::Float(scale)}});
  if (shift != 0.0F) x = layer.Emit("add", {{"x", x}, {"y", Tensor::Float(shift)}});
  return x;
}

void Unary(Layer& layer) {
  layer.Require(1, 1);
  const ValueId x = ScaledAndShifted(layer);
  const std::string& type = layer.Text("type");
  const Tensor epsilon = Tensor::Float(layer.FloatOr("epsilon", kEpsilon));
  const Tensor alpha = Tensor::Float(layer.Float("alpha"));
  ValueId y = x;
  if (type == "SQRT") y = layer.Emit("sqrt", {{"x", x}});
  if (type == "RSQRT") y = layer.Emit("rsqrt", {{"x", x}, {"epsilon", epsilon}});
  if (type == "INVERSE") y = layer.Emit("inverse", {{"x", x}, {"epsilon", epsilon}});
  if (type == "POWER") y = layer.Emit("pow", {{"x", x}, {"y", alpha}});
  if (type == "EXP") y = layer.Emit("exp", {{"x", x}});
  if (type == "LOG") y = layer.Emit("log", {{"x", x}, {"epsilon", Tensor::Float(0.0F)}});
  if (type == "ABS") y = layer.Emit("abs", {{"x", x}});
  if (type == "THRESHOLD") y = layer.Emit("threshold", {{"x", x}, {"alpha", alpha}});
  SetLikeInput(layer, y);
}

/// Bounds may meet or cross, which the operation of that name does not allow; the upper one then wins.
void Clip(Layer& layer) {
  layer.Require(1, 1);
  const ValueId raised = layer.Emit("maximum", {{"x", layer.Input()}, {"y", Tensor::Float(layer.Float("minVal"))}});
  SetLikeInput(layer, layer.Emit("minimum", {{"x", raised}, {"y", Tensor::Float(layer.Float("maxVal"))}}));
}

/// Layers whose name is that of the operation.
void SameName(Layer& layer) {
  layer.Require(1, 1);
  SetLikeInput(layer, layer.Emit(layer.kind(), {{"x", layer.Input()}}));
}

void Copy(Layer& layer) {
  layer.Require(1, 1);
  layer.SetOutput(layer.Input());
}

}  // namespace

LayerRules FunctionLayers() {
  LayerRules rules = {{"unary", Unary}, {"clip", Clip}, {"copy", Copy}};
  for (const char* kind : {"ceil", "floor", "sign", "round", "exp2", "sin", "cos", "tan", "asin", "acos", "atan",
                           "sinh", "cosh", "tanh", "asinh", "acosh", "atanh", "erf"}) {
    rules.push_back({kind, SameName});
  }
  return rules;
}

}  // namespace ulmora::engine::program::layers
