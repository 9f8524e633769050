#include "engine/cpu/kernels/pixels/PixelVariants.h"
#include "engine/cpu/kernels/pixels/Pixels.h"

#include <utility>

namespace ulmora::engine::cpu {
namespace {

constexpr int kLanes = 16;
constexpr int kRows = 14;
constexpr int kColumns = 2;

#include "engine/cpu/kernels/pixels/PixelKernels.inl"

}  // namespace

const PixelKernels kPixelsAvx512 = {kLanes, kRows, PackMatrix, RunSteps};

}  // namespace ulmora::engine::cpu
