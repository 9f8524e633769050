#pragma once
// The axes of a layer_norm, for its shape rule, its evaluation and its lowering.

#include "engine/program/OpCall.h"

#include <cstddef>
#include <vector>

namespace ulmora::engine::program {

/// The axes over which a call of layer_norm normalises, counted from the front, in the order in which gamma and beta
/// have them; all if none are given. Fails if one is out of range or listed twice.
[[nodiscard]] std::vector<std::size_t> LayerNormAxes(const OpCall& call);

}  // namespace ulmora::engine::program
