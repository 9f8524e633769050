#pragma once
// Tensors as [outer, count, inner] about the dimensions that are reduced.

#include "engine/cpu/Layout.h"
#include "engine/cpu/kernels/Reduce.h"

#include <optional>
#include <vector>

namespace ulmora::engine::cpu {

/// The view of a tensor in that layout, reduced along the marked dimensions: none if they do not lie together in
/// memory.
[[nodiscard]] std::optional<ReduceView> ViewOf(const Shape& shape, Layout layout, const std::vector<bool>& reduced);

}  // namespace ulmora::engine::cpu
