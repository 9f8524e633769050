#pragma once
// Constants that stand in the model message itself.

#include "engine/Tensor.h"

namespace ulmora::coreml {
class TensorValue;
}

namespace ulmora::engine::package {

/// The tensor of this static type whose elements are `value`. Numbers may stand as numbers of their class or, as the
/// format has it for all types without a field of their own, as packed little-endian bytes. Throws Error(Open) if the
/// kind or the number of elements is another than the type says; nothing is allocated before that is known.
[[nodiscard]] Tensor DecodeImmediate(const coreml::TensorValue& value, const TensorType& type);

}  // namespace ulmora::engine::package
