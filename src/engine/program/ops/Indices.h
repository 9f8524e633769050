#pragma once
// Indices that arrive as elements of a tensor.

#include "engine/program/OpCall.h"

#include <cstdint>

namespace ulmora::engine::program {

/// Index `given` into a dimension of `size`. Up to opset 6 negative ones count from the end; from opset 7 they are out
/// of bounds, and what that means is left open: we refuse, because nothing that we could return would be meant.
[[nodiscard]] inline std::int64_t ResolveIndex(const OpCall& call, std::int64_t given, std::int64_t size) {
  const std::int64_t index = given < 0 && call.opset() < 7 ? given + size : given;
  if (index < 0 || index >= size) {
    call.Fail("index " + std::to_string(given) + " is outside a dimension of " + std::to_string(size) + " elements");
  }
  return index;
}

}  // namespace ulmora::engine::program
