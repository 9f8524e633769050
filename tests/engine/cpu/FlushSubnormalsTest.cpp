// Every thread of the pool flushes within a scope, and has its own mode back after it.

#include "engine/cpu/FlushSubnormals.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <vector>

namespace ulmora::engine::cpu {
namespace {

/// Half of the smallest normal number, as every thread computes it.
std::vector<float> HalvesOnAllThreads() {
  std::vector<float> halves(static_cast<std::size_t>(omp_get_max_threads()), -1.0F);
#pragma omp parallel
  {
    volatile float smallest = 1.17549435e-38F;
    volatile float half = 0.5F;
    halves[static_cast<std::size_t>(omp_get_thread_num())] = smallest * half;
  }
  return halves;
}

std::vector<std::uint64_t> ModesOnAllThreads() {
  std::vector<std::uint64_t> modes(static_cast<std::size_t>(omp_get_max_threads()), 0);
#pragma omp parallel
  modes[static_cast<std::size_t>(omp_get_thread_num())] = FloatControl() & FlushBits();
  return modes;
}

class FlushSubnormalsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    omp_set_num_threads(4);
    if (FlushBits() == 0) GTEST_SKIP() << "no such mode on this processor";
  }
};

TEST_F(FlushSubnormalsTest, EveryThreadFlushesWithinTheScope) {
  FlushSubnormals flush;
  for (const float half : HalvesOnAllThreads()) EXPECT_GT(half, 0.0F);
  {
    const FlushSubnormals::Scope scope(flush);
    for (const float half : HalvesOnAllThreads()) EXPECT_EQ(half, 0.0F);
  }
  for (const float half : HalvesOnAllThreads()) EXPECT_GT(half, 0.0F);
}

TEST_F(FlushSubnormalsTest, AModeThatWasSetBeforeStaysSet) {
  const std::vector<std::uint64_t> before = ModesOnAllThreads();
  FlushSubnormals outer;
  FlushSubnormals inner;
  const FlushSubnormals::Scope scope(outer);
  {
    const FlushSubnormals::Scope again(inner);
    for (const std::uint64_t mode : ModesOnAllThreads()) EXPECT_EQ(mode, FlushBits());
  }
  for (const std::uint64_t mode : ModesOnAllThreads()) EXPECT_EQ(mode, FlushBits());
  for (const std::uint64_t mode : before) EXPECT_EQ(mode, 0U);
}

}  // namespace
}  // namespace ulmora::engine::cpu
