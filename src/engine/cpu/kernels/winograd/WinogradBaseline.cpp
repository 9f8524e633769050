#include "engine/cpu/kernels/winograd/Winograd.h"
#include "engine/cpu/kernels/winograd/WinogradVariants.h"

namespace ulmora::engine::cpu {
namespace {

constexpr int kLanes = 8;
#if defined(__aarch64__)
constexpr int kRows = 6;
#else
constexpr int kRows = 3;  // half as many registers, of half the width
#endif
constexpr int kColumns = 2;

#include "engine/cpu/kernels/winograd/WinogradKernels.inl"

}  // namespace

const WinogradKernels kWinogradBaseline = {kLanes, kRows, PackBlock, RunTiles};

}  // namespace ulmora::engine::cpu
