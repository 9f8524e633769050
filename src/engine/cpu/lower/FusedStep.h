#pragma once
// What a step that is fused behind an operation does to each element of its result.

#include "engine/cpu/Lowering.h"

#include <optional>
#include <vector>

namespace ulmora::engine::cpu {

/// A step that combines the result with another value: previous <key> other, or other <key> previous.
struct TensorStep {
  std::string_view key;
  program::ValueId other = 0;
  bool previousFirst = true;
};

/// The functions that, applied one after another, are this fused step; a single constant as its other operand counts
/// as part of a function. None if the step reads another tensor or if the library lacks a function.
[[nodiscard]] std::optional<std::vector<onednn::Eltwise>> FunctionsOf(const LowerCall& call,
                                                                      const program::FusedStep& step);

/// The step as a combination with another float tensor of more than one element, or that is no constant: none if it is
/// something else.
[[nodiscard]] std::optional<TensorStep> TensorStepOf(const LowerCall& call, const program::FusedStep& step);

}  // namespace ulmora::engine::cpu
