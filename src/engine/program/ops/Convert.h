#pragma once
// Conversion of tensors between element types.

#include "engine/Tensor.h"

namespace ulmora::engine::program {

/// The tensor's elements as `type`. Float to integer truncates towards zero and clamps, NaN becomes 0; integer to
/// integer keeps the low bits; anything to bool is "not zero"; bool to number is 0 or 1. Float to float keeps the value
/// as it is, since all floats are held and computed as float32. Neither side may be String.
[[nodiscard]] Tensor Convert(const Tensor& tensor, ElementType type);

}  // namespace ulmora::engine::program
