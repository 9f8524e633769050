// Exact offsets for lifetimes written by hand, and no overlap for random ones.

#include "engine/cpu/MemoryPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace ulmora::engine::cpu {
namespace {

using ::testing::ElementsAre;

TEST(MemoryPlan, NothingNeedsNothing) {
  const MemoryPlan plan = PlanMemory({});
  EXPECT_TRUE(plan.offsets.empty());
  EXPECT_EQ(plan.bytes, 0);
}

TEST(MemoryPlan, SizesAreRoundedToTheAlignment) {
  const MemoryPlan plan = PlanMemory({{1, 0, 0}, {65, 0, 0}});
  EXPECT_THAT(plan.offsets, ElementsAre(128, 0));
  EXPECT_EQ(plan.bytes, 192);
}

TEST(MemoryPlan, BlocksThatMeetInOneStepLieApart) {
  // The second is written in the step that reads the first.
  const MemoryPlan plan = PlanMemory({{64, 0, 1}, {64, 1, 2}});
  EXPECT_THAT(plan.offsets, ElementsAre(0, 64));
}

TEST(MemoryPlan, AChainNeedsTwoBlocks) {
  const MemoryPlan plan = PlanMemory({{640, 0, 1}, {640, 1, 2}, {640, 2, 3}, {640, 3, 4}});
  EXPECT_THAT(plan.offsets, ElementsAre(0, 640, 0, 640));
  EXPECT_EQ(plan.bytes, 1280);
}

TEST(MemoryPlan, ASkipConnectionKeepsItsBlock) {
  // Block 0 lives through all; the chain beside it takes turns.
  const MemoryPlan plan = PlanMemory({{256, 0, 4}, {256, 1, 2}, {256, 2, 3}, {256, 3, 4}});
  EXPECT_THAT(plan.offsets, ElementsAre(0, 256, 512, 256));
  EXPECT_EQ(plan.bytes, 768);
}

TEST(MemoryPlan, SmallBlocksFillGaps) {
  // The large ones go first; between the two that live at the end there is room for the last.
  const MemoryPlan plan = PlanMemory({{1024, 0, 1}, {512, 2, 3}, {512, 0, 3}, {128, 2, 2}});
  EXPECT_THAT(plan.offsets, ElementsAre(0, 0, 1024, 512));
  EXPECT_EQ(plan.bytes, 1536);
}

TEST(MemoryPlan, AGapThatIsTooSmallIsSkipped) {
  const MemoryPlan plan = PlanMemory({{512, 0, 0}, {512, 0, 1}, {256, 1, 1}, {320, 1, 1}});
  EXPECT_THAT(plan.offsets, ElementsAre(0, 512, 1024, 0));
}

/// Fails if two blocks that are alive in the same step overlap, or if an offset is off.
void ExpectNoOverlap(const std::vector<Block>& blocks, const MemoryPlan& plan) {
  std::int64_t sum = 0;
  for (std::size_t a = 0; a < blocks.size(); ++a) {
    sum += (blocks[a].bytes + kArenaAlignment - 1) / kArenaAlignment * kArenaAlignment;
    EXPECT_EQ(plan.offsets[a] % kArenaAlignment, 0);
    EXPECT_LE(plan.offsets[a] + blocks[a].bytes, plan.bytes);
    for (std::size_t b = 0; b < a; ++b) {
      const bool together = blocks[a].first <= blocks[b].last && blocks[b].first <= blocks[a].last;
      const bool overlap =
          plan.offsets[a] < plan.offsets[b] + blocks[b].bytes && plan.offsets[b] < plan.offsets[a] + blocks[a].bytes;
      EXPECT_FALSE(together && overlap) << "blocks " << b << " and " << a;
    }
  }
  EXPECT_LE(plan.bytes, sum);
}

TEST(MemoryPlan, InOrderTheSmallestGapIsTaken) {
  // Blocks 0, 2 and 4 leave gaps of 192, 128 and 256 bytes behind.
  const std::vector<Block> blocks = {{192, 0, 5}, {64, 1, 9}, {128, 2, 5}, {64, 3, 9},
                                     {256, 4, 5}, {64, 5, 9}, {128, 6, 6}, {200, 6, 6}};
  const MemoryPlan plan = PlanMemoryInOrder(blocks);
  ExpectNoOverlap(blocks, plan);
  EXPECT_THAT(plan.offsets, ElementsAre(0, 192, 256, 384, 448, 704, 256, 448));
  EXPECT_EQ(plan.bytes, 768);
}

TEST(MemoryPlan, InOrderGapsJoinAndTheLastOneGrows) {
  const std::vector<Block> blocks = {{64, 0, 0}, {64, 0, 1}, {64, 0, 1}, {192, 2, 2}, {256, 3, 3}};
  const MemoryPlan plan = PlanMemoryInOrder(blocks);
  ExpectNoOverlap(blocks, plan);
  EXPECT_THAT(plan.offsets, ElementsAre(0, 64, 128, 0, 0));
  EXPECT_EQ(plan.bytes, 256);
}

class RandomLifetimes : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(RandomLifetimes, NeverOverlap) {
  std::mt19937 random(GetParam());
  const auto pick = [&](std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random);
  };
  std::vector<Block> blocks;
  for (std::int64_t i = pick(1, 200); i > 0; --i) {
    const std::int64_t first = pick(0, 100);
    blocks.push_back({pick(1, 5000), first, first + pick(0, 20)});
  }
  ExpectNoOverlap(blocks, PlanMemory(blocks));
  ExpectNoOverlap(blocks, PlanMemoryInOrder(blocks));
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomLifetimes, ::testing::Range(1U, 21U));

constexpr std::int64_t kMany = 100'000;

TEST(ManyBlocks, AChainIsPlacedByItsNeighboursAlone) {
  std::vector<Block> blocks;
  for (std::int64_t i = 0; i < kMany; ++i) blocks.push_back({64 + i % 7 * 64, i, i + 2});
  const MemoryPlan plan = PlanMemory(blocks);
  // Four others share a step with each block, and of each pair one is placed when the other comes.
  EXPECT_LE(plan.looked, 2 * kMany);
  EXPECT_LE(plan.bytes, 5 * 7 * 64);
}

TEST(ManyBlocks, ThoseThatAllLiveTogetherAreNotComparedPairByPair) {
  std::vector<Block> blocks;
  for (std::int64_t i = 0; i < kMany; ++i) blocks.push_back({64, i, kMany});
  const MemoryPlan plan = PlanMemory(blocks);
  EXPECT_LE(plan.looked, kMany);
  EXPECT_EQ(plan.bytes, kMany * 64);
}

}  // namespace
}  // namespace ulmora::engine::cpu
