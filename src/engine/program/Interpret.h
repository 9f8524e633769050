#pragma once
// Runs a whole program by the reference evaluation of each operation: slow, obviously correct, free of oneDNN. The
// oracle for rewriting passes, for the CPU's lowering and for imported packages.

#include "engine/Tensor.h"
#include "engine/program/Program.h"

#include <span>
#include <vector>

namespace ulmora::engine::program {

/// The program's outputs, in order, for these inputs (one per Program::inputs, of exactly their shapes and kinds).
/// `program` must be specialized; fused steps are applied. A float output carries the element type that the program
/// declares for it. Values are released after their last use. Throws Error(Run) if an input does not fit, and whatever
/// an evaluation throws.
[[nodiscard]] std::vector<Tensor> Interpret(const Program& program, std::span<const Tensor> inputs);

/// The same for a program with one input and one output.
[[nodiscard]] Tensor Interpret(const Program& program, const Tensor& input);

}  // namespace ulmora::engine::program
