#pragma once
// Binds a program to concrete input shapes: infers every type in order and folds what is constant on the way, because
// shapes may depend on folded values (shape, gather, concat, reshape).

#include "engine/program/Program.h"

#include <vector>

namespace ulmora::engine::program {

/// A copy of `program` for inputs of these shapes (one per Program::inputs, in order): every value has its inferred
/// static type, operations whose operands are all constant are replaced by their results. Throws Error(Translate) if a
/// shape contradicts the declared one, if an operation refuses its operands, or if a limit is passed.
[[nodiscard]] Program Specialize(const Program& program, const std::vector<Shape>& inputShapes);

}  // namespace ulmora::engine::program
