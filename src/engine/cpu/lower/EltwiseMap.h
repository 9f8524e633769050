#pragma once
// Operations on single elements in terms of the library's elementwise functions.

#include "engine/cpu/OneDnn.h"
#include "engine/program/OpCall.h"

#include <optional>
#include <vector>

namespace ulmora::engine::cpu {

/// The functions that, applied one after another, are this operation on its operand x: none if the library lacks them.
/// All parameters of the operation are constants.
[[nodiscard]] std::optional<std::vector<onednn::Eltwise>> EltwiseOf(const program::OpCall& call);

}  // namespace ulmora::engine::cpu
