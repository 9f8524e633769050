#include "engine/cpu/lower/Elementwise.h"

namespace ulmora::engine::cpu {
namespace {

/// Memory of a tensor as one run of elements; lanes beyond the channels need the layout's own descriptor, so that the
/// library keeps them zero.
onednn::Desc FlatDescriptor(const Shape& shape, Layout layout) {
  if (layout == Layout::Blocked && !FillsBlocks(shape)) return Descriptor(shape, layout);
  return Descriptor({ElementCount(shape)}, Layout::Plain);
}

using Description = dnnl::eltwise_forward::primitive_desc;

void EmitEltwise(Emitter& emitter, const program::Operation& operation, Layout layout,
                 const std::vector<Description>& descriptions) {
  const program::ValueId x = operation.arguments.front().front();
  BufferId source = emitter.Source(x, layout);
  const BufferId result = emitter.ResultOver(operation.results.front(), x, layout);
  for (const Description& description : descriptions) {
    emitter.Add(dnnl::eltwise_forward(description),
                {{DNNL_ARG_SRC, description.src_desc(), source}, {DNNL_ARG_DST, description.dst_desc(), result}},
                description.scratchpad_desc());
    source = result;
  }
}

}  // namespace

std::vector<Form> EltwiseForms(const LowerCall& call, const std::vector<onednn::Eltwise>& functions) {
  const program::ValueId x = call.Operand("x");
  if (!call.IsFloat(x)) return {};
  const Shape& shape = call.ShapeOf(x);
  std::vector<Form> forms;
  for (const Layout layout : kAllLayouts) {
    if (layout != Layout::Plain && !HasChannels(shape)) continue;
    std::vector<Description> descriptions;
    double cost = 0.0;
    for (const onednn::Eltwise& function : functions) {
      // Of single elements its reference is no slower than a loop of ours, and some processors have nothing else.
      const auto description = onednn::DescribeEltwise(onednn::Reference::Accepted, onednn::PlainAttributes(), function,
                                                       FlatDescriptor(shape, layout));
      if (!description) break;
      descriptions.push_back(*description);
      cost += onednn::IsReference(*description) ? 8.0 : 1.0;
    }
    if (descriptions.size() != functions.size()) continue;
    Form form;
    form.plan = {{{x, layout}}, layout, cost * MemoryCost(8 * ElementCount(shape))};
    form.emit = [layout, descriptions](Emitter& emitter, const program::Operation& operation) {
      EmitEltwise(emitter, operation, layout, descriptions);
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

std::vector<Form> LowerEltwise(const LowerCall& call) {
  const auto functions = EltwiseOf(call.call);
  return functions ? EltwiseForms(call, *functions) : std::vector<Form>();
}

}  // namespace ulmora::engine::cpu
