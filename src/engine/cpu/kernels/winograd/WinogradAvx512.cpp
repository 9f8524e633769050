#include "engine/cpu/kernels/winograd/Winograd.h"
#include "engine/cpu/kernels/winograd/WinogradVariants.h"

namespace ulmora::engine::cpu {
namespace {

constexpr int kLanes = 16;
constexpr int kRows = 14;
constexpr int kColumns = 2;

#include "engine/cpu/kernels/winograd/WinogradKernels.inl"

}  // namespace

const WinogradKernels kWinogradAvx512 = {kLanes, kRows, PackBlock, RunTiles};

}  // namespace ulmora::engine::cpu
