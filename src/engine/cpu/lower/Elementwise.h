#pragma once
// Forms of operations that treat every element by itself.

#include "engine/cpu/Lowering.h"
#include "engine/cpu/kernels/Map.h"
#include "engine/cpu/lower/EltwiseMap.h"

#include <vector>

namespace ulmora::engine::cpu {

/// The operation on its operand x by the library's functions, in the layout in which x is: none if x is not float or
/// the library refuses.
[[nodiscard]] std::vector<Form> EltwiseForms(const LowerCall& call, const std::vector<onednn::Eltwise>& functions);

/// Lowering by EltwiseOf.
[[nodiscard]] std::vector<Form> LowerEltwise(const LowerCall& call);

/// The operation on its operand x by a function of ours (float to float), over memory in whatever layout has no lanes
/// beyond the channels. `cost` multiplies that of the memory traffic.
template <typename Function>
std::vector<Form> MapForms(const LowerCall& call, Function function, double cost = 8.0) {
  const program::ValueId x = call.Operand("x");
  if (!call.IsFloat(x)) return {};
  const std::int64_t count = ElementCount(call.ShapeOf(x));
  std::vector<Form> forms;
  for (const Layout layout : LayoutsOf(call.ShapeOf(x))) {
    Form form;
    form.plan = {{{x, layout}}, layout, cost * MemoryCost(8 * count)};
    form.emit = [layout, count, function](Emitter& emitter, const program::Operation& operation) {
      const BufferId source = emitter.Source(operation.arguments.front().front(), layout);
      const BufferId result =
          emitter.ResultOver(operation.results.front(), operation.arguments.front().front(), layout);
      emitter.Add([count, function](const Operands& at) { MapElements(at.at(0), at.at(1), count, function); },
                  {source, result});
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

}  // namespace ulmora::engine::cpu
