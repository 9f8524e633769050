#pragma once
// What concat puts one behind another, for its shape rule, its evaluation and its lowering.

#include "engine/program/OpCall.h"

#include <cstddef>

namespace ulmora::engine::program {

/// Shape of values[index] as concat takes it: scalars are vectors of one element, so that a list of sizes can be put
/// together from single ones.
[[nodiscard]] Shape PartShape(const OpCall& call, std::size_t index);

/// The axis of a call of concat, counted from the front. Fails if the parts have no such axis.
[[nodiscard]] std::size_t ConcatAxis(const OpCall& call);

}  // namespace ulmora::engine::program
