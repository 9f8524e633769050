#include "engine/cpu/kernels/pixels/PixelVariants.h"
#include "engine/cpu/kernels/pixels/Pixels.h"

#include <utility>

namespace ulmora::engine::cpu {
namespace {

constexpr int kLanes = 8;
constexpr int kRows = 6;
constexpr int kColumns = 2;

#include "engine/cpu/kernels/pixels/PixelKernels.inl"

}  // namespace

const PixelKernels kPixelsAvx2 = {kLanes, kRows, PackMatrix, RunSteps};

}  // namespace ulmora::engine::cpu
