#pragma once
// What a network costs, in the unit in which networks are compared.

#include "engine/program/Program.h"

#include <cstdint>

namespace ulmora::engine::program {

/// Multiply-adds of all convolutions, matrix products and attentions of a specialized program (rewritten or not), as
/// their definitions have it, whatever algorithm runs them. Elementwise work, a few percent of a network's, is left
/// out.
[[nodiscard]] std::int64_t MultiplyAdds(const Program& program);

}  // namespace ulmora::engine::program
