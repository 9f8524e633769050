#include "engine/program/passes/Pipeline.h"

#include "engine/program/Verify.h"
#include "engine/program/passes/Pass.h"

#include <array>

namespace ulmora::engine::program {
namespace {

constexpr std::array<Pass, 7> kPipeline = {{
    // First, so that unused branches neither count as uses of a value nor cost the other passes time.
    {"RemoveDeadCode", RemoveDeadCode},
    // Casts between float types stand in the middle of every other pattern.
    {"DropFloatCasts", DropFloatCasts},
    // Before constants are folded into convolutions: the factors of a written-out activation belong to it.
    {"RecognizeActivations", RecognizeActivations},
    // Before folding for the same reason: its last two steps look like a scale and a bias.
    {"RecognizeLayerNorm", RecognizeLayerNorm},
    // Before attaching: a scale that is folded costs nothing at all, and the activation behind it becomes a neighbour.
    {"FoldBatchNorm", FoldBatchNorm},
    // Needs the activations recognised and the scales gone; nothing else understands fused steps.
    {"AttachPostOps", AttachPostOps},
    // Releases the constants that folding has replaced.
    {"RemoveDeadCode", RemoveDeadCode},
}};

}  // namespace

void Rewrite(Program& program) {
  for (const Pass& pass : kPipeline) {
    pass.run(program);
#ifndef NDEBUG
    VerifySpecialized(program);
#endif
  }
}

}  // namespace ulmora::engine::program
