#pragma once
// 3x3 convolutions by our own Winograd kernels.

#include "engine/cpu/Lowering.h"
#include "engine/program/ops/ConvGeometry.h"

#include <vector>

namespace ulmora::engine::cpu {

/// The forms in which this convolution can run by Winograd's algorithm; none if it is no dense 3x3 convolution of
/// stride 1 with constant weights, if its channels do not fill blocks, or if they are too few. `directCost` is that of
/// the best direct kernel.
[[nodiscard]] std::vector<Form> WinogradForms(const LowerCall& call, const program::ConvGeometry& geometry,
                                              double directCost);

}  // namespace ulmora::engine::cpu
