#include "engine/cpu/FlushSubnormals.h"

#include <omp.h>

#include <algorithm>
#include <cstddef>

#if defined(__x86_64__) || defined(_M_X64)
#include <xmmintrin.h>
#endif

namespace ulmora::engine::cpu {
namespace {

void SetFloatControl(std::uint64_t control) noexcept {
#if defined(__x86_64__) || defined(_M_X64)
  _mm_setcsr(static_cast<unsigned>(control));
#elif defined(__aarch64__)
  asm volatile("msr fpcr, %0" : : "r"(control));
#else
  static_cast<void>(control);
#endif
}

/// Of the control word only the mode goes back: the exception flags that the run raised stay raised.
void RestoreMode(std::uint64_t before) noexcept {
  SetFloatControl((FloatControl() & ~FlushBits()) | (before & FlushBits()));
}

}  // namespace

std::uint64_t FloatControl() noexcept {
#if defined(__x86_64__) || defined(_M_X64)
  return _mm_getcsr();
#elif defined(__aarch64__)
  std::uint64_t control = 0;
  asm volatile("mrs %0, fpcr" : "=r"(control));
  return control;
#else
  return 0;
#endif
}

std::uint64_t FlushBits() noexcept {
#if defined(__x86_64__) || defined(_M_X64)
  return 0x8040;  // flush results to zero, and treat operands as zero
#elif defined(__aarch64__)
  return std::uint64_t{1} << 24;  // FZ does both
#else
  return 0;
#endif
}

FlushSubnormals::FlushSubnormals() : saved_(static_cast<std::size_t>(std::max(1, omp_get_max_threads()))) {}

FlushSubnormals::Scope::Scope(FlushSubnormals& owner) : owner_(owner) {
  const int threads = static_cast<int>(owner_.saved_.size());
#pragma omp parallel num_threads(threads)
  {
    const std::uint64_t control = FloatControl();
    owner_.saved_[static_cast<std::size_t>(omp_get_thread_num())] = control;
    SetFloatControl(control | FlushBits());
  }
  // LLVM's OpenMP runtime hands the calling thread's mode to all threads where a region begins, and gives the calling
  // thread its own back where it ends: there the mode has to be set outside of one.
  SetFloatControl(FloatControl() | FlushBits());
}

FlushSubnormals::Scope::~Scope() {
  RestoreMode(owner_.saved_.front());
  const int threads = static_cast<int>(owner_.saved_.size());
#pragma omp parallel num_threads(threads)
  RestoreMode(owner_.saved_[static_cast<std::size_t>(omp_get_thread_num())]);
}

}  // namespace ulmora::engine::cpu
