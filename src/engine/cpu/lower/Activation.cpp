// Activation functions: the library's elementwise functions and softmax, and short kernels for what it lacks.

#include "engine/cpu/lower/Broadcasting.h"
#include "engine/cpu/lower/Elementwise.h"
#include "engine/cpu/lower/Families.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace ulmora::engine::cpu {
namespace {

std::vector<Form> LowerSoftsign(const LowerCall& call) {
  return MapForms(
      call, [](float x) { return x / (1.0F + std::abs(x)); }, 1.0);
}

std::vector<Form> LowerThresholdedRelu(const LowerCall& call) {
  return MapForms(
      call, [alpha = call.call.Float("alpha")](float x) { return x >= alpha ? x : 0.0F; }, 1.0);
}

std::vector<Form> LowerHardSwish(const LowerCall& call) {
  if (EltwiseOf(call.call)) return LowerEltwise(call);
  return MapForms(
      call,
      [alpha = call.call.Float("alpha"), beta = call.call.Float("beta")](float x) {
        return x * std::min(std::max(alpha * x + beta, 0.0F), 1.0F);
      },
      1.0);
}

/// x >= 0: x, otherwise alpha of the channel times x.
std::vector<Form> LowerPrelu(const LowerCall& call) {
  const Tensor& alpha = call.call.Value("alpha");
  Shape shape(call.call.ShapeOf("x").size(), 1);
  shape[1] = alpha.count();
  const BroadcastOperand x = {call.Operand("x"), std::nullopt};
  const BroadcastOperand factors = {0, alpha.Reshaped(shape)};
  return BroadcastForms<float, float, float>(
      call, [](float v, float a) { return v >= 0.0F ? v : a * v; }, {x, factors}, KeepsZero::Yes);
}

/// Along an axis that is the innermost in memory, if one of the layouts has it there.
std::vector<Form> LowerSoftmax(const LowerCall& call) {
  const program::ValueId x = call.Operand("x");
  const Shape& shape = call.ShapeOf(x);
  if (!call.IsFloat(x) || shape.empty()) return {};
  const int axis = static_cast<int>(call.call.Axis(call.call.Int("axis"), shape.size()));
  std::vector<Form> forms;
  for (const Layout layout : {Layout::Plain, Layout::ChannelsLast}) {
    if (layout == Layout::ChannelsLast && !HasChannels(shape)) continue;
    const onednn::Desc data = Descriptor(shape, layout);
    const auto description =
        onednn::DescribeSoftmax(onednn::Reference::Accepted, onednn::PlainAttributes(), data, data, axis);
    if (!description) continue;
    const double slowdown = onednn::IsReference(*description) ? 20.0 : 3.0;
    Form form;
    form.plan = {{{x, layout}}, layout, slowdown * MemoryCost(8 * ElementCount(shape))};
    form.emit = [layout, description = *description](Emitter& emitter, const program::Operation& operation) {
      const program::ValueId operand = operation.arguments.front().front();
      const BufferId source = emitter.Source(operand, layout);
      const BufferId result = emitter.ResultOver(operation.results.front(), operand, layout);
      emitter.Add(onednn::Softmax(description),
                  {{DNNL_ARG_SRC, description.src_desc(), source}, {DNNL_ARG_DST, description.dst_desc(), result}},
                  description.scratchpad_desc());
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

}  // namespace

std::vector<LoweringEntry> ActivationLowerings() {
  return {{"clamped_relu", LowerEltwise},
          {"elu", LowerEltwise},
          {"gelu", LowerEltwise},
          {"hard_swish", LowerHardSwish},
          {"leaky_relu", LowerEltwise},
          {"linear_activation", LowerEltwise},
          {"mish", LowerEltwise},
          {"prelu", LowerPrelu},
          {"relu", LowerEltwise},
          {"relu6", LowerEltwise},
          {"scaled_tanh", LowerEltwise},
          {"sigmoid", LowerEltwise},
          {"sigmoid_hard", LowerEltwise},
          {"silu", LowerEltwise},
          {"softmax", LowerSoftmax},
          {"softplus", LowerEltwise},
          {"softsign", LowerSoftsign},
          {"tanh", LowerEltwise},
          {"thresholded_relu", LowerThresholdedRelu}};
}

}  // namespace ulmora::engine::cpu
