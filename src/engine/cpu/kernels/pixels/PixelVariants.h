#pragma once
// The instances of the kernels. Each is compiled for its own instruction set and must only be called where that exists.

#include "engine/cpu/kernels/pixels/Pixels.h"

namespace ulmora::engine::cpu {

#if defined(__x86_64__)
extern const PixelKernels kPixelsAvx2;
extern const PixelKernels kPixelsAvx512;
#endif
extern const PixelKernels kPixelsBaseline;

}  // namespace ulmora::engine::cpu
