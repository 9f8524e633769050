#include "engine/cpu/kernels/pixels/PixelVariants.h"
#include "engine/cpu/kernels/pixels/Pixels.h"

#include <utility>

namespace ulmora::engine::cpu {
namespace {

constexpr int kLanes = 8;
#if defined(__aarch64__)
constexpr int kRows = 6;
#else
constexpr int kRows = 3;  // half as many registers, of half the width
#endif
constexpr int kColumns = 2;

#include "engine/cpu/kernels/pixels/PixelKernels.inl"

}  // namespace

const PixelKernels kPixelsBaseline = {kLanes, kRows, PackMatrix, RunSteps};

}  // namespace ulmora::engine::cpu
