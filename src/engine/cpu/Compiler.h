#pragma once
// From a rewritten program to an executable's parts: forms chosen, operations lowered, memory placed and bound.

#include "engine/cpu/AlignedBuffer.h"
#include "engine/cpu/Emitter.h"
#include "engine/cpu/Executable.h"
#include "engine/cpu/Step.h"
#include "engine/cpu/WeightStore.h"
#include "engine/program/Program.h"

#include <memory>
#include <vector>

namespace ulmora::engine::cpu {

/// A compiled program. The steps are bound to the memory beside them.
struct Compiled {
  Shape inputShape;
  Shape outputShape;
  AlignedBuffer input;
  AlignedBuffer output;
  AlignedBuffer arena;
  WeightStore weights;
  std::vector<void*> addresses;
  std::vector<LabelledStep> steps;
};

/// Throws Error(Run) if the program has not one float input and output of known shape, if the arena would pass
/// limits::kMaxArenaBytes, or if the library fails.
[[nodiscard]] std::unique_ptr<Compiled> Compile(const program::Program& program, const ExecutableOptions& options);

}  // namespace ulmora::engine::cpu
