#pragma once
// Checks that a program is well formed, whatever it computes. Run after every pass in debug builds and tests.

#include "engine/program/Program.h"

namespace ulmora::engine::program {

/// Throws Error(Translate) that names the first fault found:
/// - every value has exactly one origin: program input, constant, or result of one operation;
/// - operands are defined before they are used, outputs at all;
/// - arguments are aligned with the parameters, required ones present, single ones single;
/// - in fused steps at least one operand is the flowing value, and no operand elsewhere is.
/// Linear in the size of the program.
void Verify(const Program& program);

/// The same, and every type is static with a bounded number of elements, constants stand where they are demanded,
/// results have the types that the shape rules give, and fused steps keep the type of the result they apply to. One
/// float type is as good as another: all are computed as float32.
void VerifySpecialized(const Program& program);

}  // namespace ulmora::engine::program
