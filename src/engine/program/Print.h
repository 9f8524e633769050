#pragma once
// Readable text of programs, for messages and tests.

#include "engine/program/Program.h"

#include <string>

namespace ulmora::engine::program {

/// One line per input, operation and output:
///   input x: float32 [1, 3, 8, 8]
///   c1: float32 [1, 4, 6, 6] = conv(x=x, weight=w: float32 [4, 3, 3, 3], pad_type="valid"), relu(x=.)
///   output c1
/// Constants of few elements are written out, a dot is the flowing value of a fused step.
[[nodiscard]] std::string Print(const Program& program);

/// The line of one operation, without line end.
[[nodiscard]] std::string Print(const Program& program, const Operation& operation);

}  // namespace ulmora::engine::program
