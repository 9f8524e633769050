#include "engine/cpu/lower/Reference.h"

#include <memory>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

void EmitReference(Emitter& emitter, const program::Operation& operation) {
  const program::Program& program = emitter.program();
  std::vector<BufferId> touched;
  std::vector<std::vector<ReferenceStep::Operand>> operands;
  for (const program::Operands& parameter : operation.arguments) {
    std::vector<ReferenceStep::Operand>& row = operands.emplace_back();
    for (const program::ValueId id : parameter) {
      const program::Value& value = program.at(id);
      row.push_back({value.type, value.constant, 0});
      if (value.constant) continue;
      row.back().buffer = emitter.Source(id, Layout::Plain);
      touched.push_back(row.back().buffer);
    }
  }
  std::vector<ReferenceStep::Result> results;
  for (const program::ValueId id : operation.results) {
    results.push_back({program.at(id).type, emitter.Result(id, Layout::Plain)});
    touched.push_back(results.back().buffer);
  }
  emitter.Add(std::make_unique<ReferenceStep>(*operation.definition, operation.name, program.opset, std::move(operands),
                                              std::move(results)),
              touched, "reference");
}

}  // namespace

Form ReferenceForm(const LowerCall& call) {
  Form form;
  for (const program::Operands& parameter : call.operation.arguments) {
    for (const program::ValueId id : parameter) {
      if (!call.program.at(id).constant) form.plan.needs.push_back({id, Layout::Plain});
    }
  }
  form.emit = EmitReference;
  return form;
}

const std::vector<std::string_view>& ReferenceOperations() {
  static const std::vector<std::string_view> keys = {
      // Constants nearly always, and then folded.
      "fill", "fill_like", "range_1d", "shape", "constexpr_affine_dequantize", "constexpr_blockwise_shift_scale",
      "constexpr_cast", "constexpr_lut_to_dense", "constexpr_lut_to_sparse", "constexpr_sparse_blockwise_shift_scale",
      "constexpr_sparse_to_dense",
      // Not met in image networks so far.
      "affine", "argsort", "band_part", "batch_to_space", "crop_resize", "cumsum", "einsum", "gather_along_axis",
      "gather_nd", "l2_norm", "l2_pool", "local_response_norm", "non_zero", "one_hot", "reduce_argmax", "reduce_argmin",
      "reduce_log_sum_exp", "resample", "reverse_sequence", "scatter", "scatter_along_axis", "scatter_nd",
      "slice_update", "sliding_windows", "softplus_parametric", "space_to_batch", "topk"};
  return keys;
}

bool TouchesNothing(const LowerCall& call) {
  const auto isEmpty = [&](program::ValueId id) {
    const program::Value& value = call.program.at(id);
    return !value.constant && ElementCount(value.type.shape) == 0;
  };
  bool found = false;
  ForEachOperand(call.operation, [&](program::ValueId id) { found = found || isEmpty(id); });
  for (const program::ValueId id : call.operation.results) found = found || isEmpty(id);
  return found;
}

}  // namespace ulmora::engine::cpu
