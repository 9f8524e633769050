#pragma once
// Which of the kernels that are compiled for several instruction sets this machine runs.

namespace ulmora::engine::cpu {

/// The instance for blocks of `lanes` channels, or null if there is none that runs here. Instances are told apart by
/// their member `lanes`; those of AVX2 and of the baseline have the same number, and AVX2 is preferred.
#if defined(__x86_64__)
template <typename Kernels>
[[nodiscard]] const Kernels* ChooseKernels(int lanes, const Kernels& baseline, const Kernels& avx2,
                                           const Kernels& avx512) {
  const bool hasAvx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                         __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
  if (lanes == avx512.lanes) return hasAvx512 ? &avx512 : nullptr;
  const bool hasAvx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  if (lanes == avx2.lanes && hasAvx2) return &avx2;
  return lanes == baseline.lanes ? &baseline : nullptr;
}
#else
template <typename Kernels>
[[nodiscard]] const Kernels* ChooseKernels(int lanes, const Kernels& baseline) {
  return lanes == baseline.lanes ? &baseline : nullptr;
}
#endif

}  // namespace ulmora::engine::cpu
