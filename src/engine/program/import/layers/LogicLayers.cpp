// Comparisons, logic and choice. Truth is a blob of 1 and 0; every number but 0 is true.

#include "engine/program/import/layers/Families.h"

namespace ulmora::engine::program::layers {
namespace {

ValueId Truth(Layer& layer, const Blob& blob) {
  return layer.Emit("not_equal", {{"x", blob}, {"y", Tensor::Float(0.0F)}});
}

/// Of two inputs, or of one with alpha.
template <const char* kOperation>
void Comparison(Layer& layer) {
  layer.Require(1, 2);
  if (layer.InputCount() == 1) {
    const Tensor alpha = Tensor::Float(layer.Float("alpha"));
    SetLikeInput(layer, layer.AsFloats(layer.Emit(kOperation, {{"x", layer.Input()}, {"y", alpha}})));
    return;
  }
  const std::vector<Blob> inputs = {layer.Input(0), layer.Input(1)};
  const ValueId truth = layer.Emit(kOperation, {{"x", inputs[0]}, {"y", inputs[1]}});
  layer.SetOutput(BroadcastOf(inputs, layer.AsFloats(truth)));
}

template <const char* kOperation>
void Logic(Layer& layer) {
  layer.Require(2, 2);
  const std::vector<Blob> inputs = {layer.Input(0), layer.Input(1)};
  const ValueId truth = layer.Emit(kOperation, {{"x", Truth(layer, inputs[0])}, {"y", Truth(layer, inputs[1])}});
  layer.SetOutput(BroadcastOf(inputs, layer.AsFloats(truth)));
}

void Not(Layer& layer) {
  layer.Require(1, 1);
  const Tensor zero = Tensor::Float(0.0F);
  SetLikeInput(layer, layer.AsFloats(layer.Emit("equal", {{"x", layer.Input()}, {"y", zero}})));
}

void Where(Layer& layer) {
  layer.Require(3, 3);
  const std::vector<Blob> inputs = {layer.Input(0), layer.Input(1), layer.Input(2)};
  const ValueId condition = Truth(layer, inputs[0]);
  const ValueId value = layer.Emit("select", {{"cond", condition}, {"a", inputs[1]}, {"b", inputs[2]}});
  layer.SetOutput(BroadcastOf(inputs, value));
}

constexpr char kEqual[] = "equal";
constexpr char kNotEqual[] = "not_equal";
constexpr char kLess[] = "less";
constexpr char kLessEqual[] = "less_equal";
constexpr char kGreater[] = "greater";
constexpr char kGreaterEqual[] = "greater_equal";
constexpr char kAnd[] = "logical_and";
constexpr char kOr[] = "logical_or";
constexpr char kXor[] = "logical_xor";

}  // namespace

LayerRules LogicLayers() {
  return {
      {"equal", Comparison<kEqual>},         {"notEqual", Comparison<kNotEqual>},
      {"lessThan", Comparison<kLess>},       {"lessEqual", Comparison<kLessEqual>},
      {"greaterThan", Comparison<kGreater>}, {"greaterEqual", Comparison<kGreaterEqual>},
      {"logicalAnd", Logic<kAnd>},           {"logicalOr", Logic<kOr>},
      {"logicalXor", Logic<kXor>},           {"logicalNot", Not},
      {"whereBroadcastable", Where},
  };
}

}  // namespace ulmora::engine::program::layers
