#pragma once
// Writing elements to where indices say, for scatter, scatter_along_axis, scatter_nd and slice_update.

#include "engine/program/OpCall.h"

#include <cstdint>
#include <functional>

namespace ulmora::engine::program {

/// What becomes of an element that an update meets.
enum class ScatterMode : std::uint8_t { Update, Add, Subtract, Multiply, Divide, Maximum, Minimum };

/// The parameter `mode` of the call.
[[nodiscard]] ScatterMode ScatterModeOf(const OpCall& call);

/// Offset in the data of the element that the update at `index` meets.
using ScatterTarget = std::function<std::int64_t(const Shape& index)>;

/// `data` combined with the updates one after another, in row-major order: of several for one element the last one
/// wins, or all of them count. Both hold the same storage class; bools only know Update.
[[nodiscard]] Tensor Scattered(const Tensor& data, const Tensor& updates, ScatterMode mode,
                               const ScatterTarget& target);

/// Fails unless data holds numbers, indices integers, and updates what data holds, in the shape `expected`.
void RequireUpdates(const OpCall& call, const Shape& expected);

}  // namespace ulmora::engine::program
