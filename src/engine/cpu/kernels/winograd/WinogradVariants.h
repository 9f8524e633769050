#pragma once
// The instances of the kernels. Each is compiled for its own instruction set and must only be called where that exists.

#include "engine/cpu/kernels/winograd/Winograd.h"

namespace ulmora::engine::cpu {

#if defined(__x86_64__)
extern const WinogradKernels kWinogradAvx2;
extern const WinogradKernels kWinogradAvx512;
#endif
extern const WinogradKernels kWinogradBaseline;

}  // namespace ulmora::engine::cpu
