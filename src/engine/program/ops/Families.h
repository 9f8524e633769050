#pragma once
// One function per family file: the definitions that the registry collects.

#include "engine/program/OpRegistry.h"

#include <vector>

namespace ulmora::engine::program {

std::vector<OpDefinition> ActivationOps();
std::vector<OpDefinition> AttentionOps();
std::vector<OpDefinition> CastOps();
std::vector<OpDefinition> CompositeOps();
std::vector<OpDefinition> ConstexprLookupOps();
std::vector<OpDefinition> ConstexprOps();
std::vector<OpDefinition> ConvOps();
std::vector<OpDefinition> CropResizeOps();
std::vector<OpDefinition> ElementwiseBinaryOps();
std::vector<OpDefinition> ElementwiseUnaryOps();
std::vector<OpDefinition> GatherOps();
std::vector<OpDefinition> JoinOps();
std::vector<OpDefinition> LinearOps();
std::vector<OpDefinition> NormalizationOps();
std::vector<OpDefinition> PadOps();
std::vector<OpDefinition> PoolOps();
std::vector<OpDefinition> QuantizeOps();
std::vector<OpDefinition> RearrangeOps();
std::vector<OpDefinition> ReductionOps();
std::vector<OpDefinition> ReshapeOps();
std::vector<OpDefinition> ResizeOps();
std::vector<OpDefinition> SamplingOps();
std::vector<OpDefinition> ScatterNdOps();
std::vector<OpDefinition> ScatterOps();
std::vector<OpDefinition> SliceOps();
std::vector<OpDefinition> SortOps();
std::vector<OpDefinition> WindowOps();

}  // namespace ulmora::engine::program
