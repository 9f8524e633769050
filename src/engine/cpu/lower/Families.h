#pragma once
// One function per family file: the lowerings that the table collects.

#include "engine/cpu/Lowering.h"

#include <vector>

namespace ulmora::engine::cpu {

std::vector<LoweringEntry> ActivationLowerings();
std::vector<LoweringEntry> AttentionLowerings();
std::vector<LoweringEntry> CastLowerings();
std::vector<LoweringEntry> ConvLowerings();
std::vector<LoweringEntry> ElementwiseBinaryLowerings();
std::vector<LoweringEntry> ElementwiseUnaryLowerings();
std::vector<LoweringEntry> JoinLowerings();
std::vector<LoweringEntry> LinearLowerings();
std::vector<LoweringEntry> NormalizationLowerings();
std::vector<LoweringEntry> PoolLowerings();
std::vector<LoweringEntry> QuantizeLowerings();
std::vector<LoweringEntry> RearrangeLowerings();
std::vector<LoweringEntry> ReductionLowerings();
std::vector<LoweringEntry> ReshapeLowerings();
std::vector<LoweringEntry> ResizeLowerings();
std::vector<LoweringEntry> SliceLowerings();

}  // namespace ulmora::engine::cpu
