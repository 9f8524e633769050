#pragma once
// The rewriting passes. Each takes a specialized program and leaves an equal one; each documents itself in its own file
// as "given this, result that".

#include "engine/program/Program.h"

#include <string_view>

namespace ulmora::engine::program {

void DropFloatCasts(Program& program);
void RecognizeActivations(Program& program);
void RecognizeLayerNorm(Program& program);
void FoldBatchNorm(Program& program);
void AttachPostOps(Program& program);
void RemoveDeadCode(Program& program);

struct Pass {
  std::string_view name;
  void (*run)(Program& program);
};

}  // namespace ulmora::engine::program
