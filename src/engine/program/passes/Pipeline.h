#pragma once
// The rewriting passes in their order, each with the reason for its position in Pipeline.cpp.

#include "engine/program/Program.h"

namespace ulmora::engine::program {

/// Rewrites a specialized program into an equal one that runs faster: casts between float types dropped, batch
/// normalisation folded, composed activations and normalisations recognised, activations and residual additions
/// attached to the operation before them, dead code removed. Outputs keep their order and types.
void Rewrite(Program& program);

}  // namespace ulmora::engine::program
