#pragma once
// Operations that run by their reference evaluation.

#include "engine/cpu/Lowering.h"

namespace ulmora::engine::cpu {

/// The one form of an operation that runs by its reference evaluation: everything dense and row-major.
[[nodiscard]] Form ReferenceForm(const LowerCall& call);

/// True if an operand that is no constant, or a result, has no elements; nothing in the lowerings expects that.
[[nodiscard]] bool TouchesNothing(const LowerCall& call);

}  // namespace ulmora::engine::cpu
