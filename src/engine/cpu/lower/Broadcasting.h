#pragma once
// Forms of elementwise operations on several tensors that broadcast against each other.

#include "engine/cpu/Lowering.h"
#include "engine/cpu/kernels/Broadcast.h"
#include "engine/program/ShapeMath.h"

#include <array>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

namespace ulmora::engine::cpu {

/// An operand of such an operation: a value, or a constant that the lowering has put into shape.
struct BroadcastOperand {
  program::ValueId value = 0;
  std::optional<Tensor> constant;
};

/// Whether the function of zeros is zero: then it may run over lanes beyond the channels and leaves them zero.
enum class KeepsZero : bool { No, Yes };

/// How the operands lie when the result lies in `layout`.
struct BroadcastPlan {
  Layout layout = Layout::Plain;
  std::vector<Shape> shapes;    ///< of the operands, with as many dimensions as the result
  std::vector<Layout> layouts;  ///< in which the operands are wanted
};

/// The layouts of the result in which the operands can be read, each with theirs. The operands of `call` in order.
[[nodiscard]] std::vector<BroadcastPlan> BroadcastPlans(const LowerCall& call,
                                                        const std::vector<BroadcastOperand>& operands,
                                                        KeepsZero keepsZero);

/// The loops over the result's memory, and each operand's stride in each.
[[nodiscard]] std::vector<std::int64_t> BroadcastCounts(const Shape& result, Layout layout);
[[nodiscard]] std::vector<std::int64_t> OperandStrides(const Shape& operand, Layout operandLayout, const Shape& result,
                                                       Layout layout);

/// Buffer of an operand.
[[nodiscard]] BufferId OperandBuffer(Emitter& emitter, const BroadcastOperand& operand, const Shape& shape,
                                     Layout layout);

/// Bytes that the operation touches, for its cost.
[[nodiscard]] std::int64_t BroadcastBytes(const LowerCall& call, const BroadcastPlan& plan);

/// The buffer of the result: that of an operand of its shape and element size, if that is free, or a new one.
[[nodiscard]] BufferId BroadcastResult(Emitter& emitter, const program::Operation& operation,
                                       const std::vector<BroadcastOperand>& operands, const BroadcastPlan& plan);

/// Runs result[i] = function(operands[i]...) with elements of the types Out and In.
template <typename Out, typename... In, typename Function>
std::vector<Form> BroadcastForms(const LowerCall& call, Function function,
                                 const std::vector<BroadcastOperand>& operands, KeepsZero keepsZero) {
  constexpr std::size_t kCount = sizeof...(In);
  std::vector<Form> forms;
  for (const BroadcastPlan& plan : BroadcastPlans(call, operands, keepsZero)) {
    Form form;
    form.plan.result = plan.layout;
    form.plan.cost = MemoryCost(BroadcastBytes(call, plan));
    for (std::size_t k = 0; k < kCount; ++k) {
      if (!operands[k].constant) form.plan.needs.push_back({operands[k].value, plan.layouts[k]});
    }
    BroadcastLoops<kCount> loops;
    const Shape& result = call.ShapeOf(call.result());
    loops.counts = BroadcastCounts(result, plan.layout);
    loops.strides.resize(loops.counts.size());
    for (std::size_t k = 0; k < kCount; ++k) {
      const std::vector<std::int64_t> strides = OperandStrides(plan.shapes[k], plan.layouts[k], result, plan.layout);
      for (std::size_t i = 0; i < strides.size(); ++i) loops.strides[i][k] = strides[i];
    }
    form.emit = [operands, plan, kernel = BroadcastKernel<Function, Out, In...>(function, std::move(loops))](
                    Emitter& emitter, const program::Operation& operation) {
      std::vector<BufferId> buffers;
      for (std::size_t k = 0; k < kCount; ++k) {
        buffers.push_back(OperandBuffer(emitter, operands[k], plan.shapes[k], plan.layouts[k]));
      }
      buffers.push_back(BroadcastResult(emitter, operation, operands, plan));
      emitter.Add(
          [kernel](const Operands& at) {
            [&]<std::size_t... kIndex>(std::index_sequence<kIndex...>) {
              kernel.Run(at.at<Out>(kCount), at.at<const In>(kIndex)...);
            }
            (std::make_index_sequence<kCount>{});
          },
          std::move(buffers));
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

}  // namespace ulmora::engine::cpu
