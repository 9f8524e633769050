#pragma once
// Decimal numbers to the floats of the type that they are written for.

#include "engine/Tensor.h"

namespace ulmora::engine::package::text {

/// The value of the float type `type` that is nearest to `value`, ties to even, as float32: infinite beyond the range
/// of the type (not-a-number for one without infinities), and float32 itself for types that are wider. Requires a float
/// type.
[[nodiscard]] float RoundedTo(ElementType type, double value) noexcept;

}  // namespace ulmora::engine::package::text
