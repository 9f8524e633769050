#include "engine/Limits.h"
#include "engine/program/FoldingBudget.h"

#include <gtest/gtest.h>

namespace ulmora::engine::program {
namespace {

/// A program whose constants are `count` views of one tensor of so many elements.
Program WithConstants(std::int64_t elements, int count) {
  const Tensor tensor = Tensor::Floats({elements}, std::vector<float>(static_cast<std::size_t>(elements)));
  Program program;
  for (int i = 0; i < count; ++i) program.AddConstant("c", tensor);
  return program;
}

constexpr FoldingCost Result(std::int64_t elements) {
  return {0, elements, elements, false};
}

TEST(FoldingBudget, OneResultIsBounded) {
  FoldingBudget budget{Program()};
  EXPECT_FALSE(budget.Take(Result(limits::kMaxFoldedElements + 1)));
  EXPECT_TRUE(budget.Take(Result(limits::kMaxFoldedElements)));
}

TEST(FoldingBudget, AllResultsTogetherAreBounded) {
  FoldingBudget budget{Program()};
  for (std::int64_t left = limits::kFoldedElements; left > 0; left -= limits::kMaxFoldedElements) {
    EXPECT_TRUE(budget.Take(Result(limits::kMaxFoldedElements)));
  }
  EXPECT_FALSE(budget.Take(Result(1)));
  EXPECT_TRUE(budget.Take(Result(0)));
}

TEST(FoldingBudget, ConstantsOfThePackageJustifyMore) {
  constexpr std::int64_t kElements = 1000;
  FoldingBudget budget{WithConstants(kElements, 1)};
  EXPECT_FALSE(budget.Take(Result(limits::kMaxFoldedElements + kElements + 1)));
  EXPECT_TRUE(budget.Take(Result(limits::kMaxFoldedElements + kElements)));
  EXPECT_FALSE(budget.Take({0, limits::kFoldedElements, 1, false}));
  EXPECT_TRUE(budget.Take({0, limits::kFoldedElements - limits::kMaxFoldedElements, 1, false}));
  EXPECT_TRUE(budget.Take(Result((limits::kFoldedPerConstant - 1) * kElements)));
  EXPECT_FALSE(budget.Take(Result(1)));
}

TEST(FoldingBudget, SharedElementsCountOnce) {
  FoldingBudget budget{WithConstants(1000, 50)};
  EXPECT_FALSE(budget.Take(Result(limits::kMaxFoldedElements + 1001)));
}

TEST(FoldingBudget, WorkIsBoundedAndWhatDoesNotFitTakesNothing) {
  FoldingBudget budget{Program()};
  EXPECT_FALSE(budget.Take({limits::kFoldingWork, 1, 1, false}));
  EXPECT_TRUE(budget.Take({limits::kFoldingWork - 2, 1, 1, false}));
  EXPECT_FALSE(budget.Take({2, 0, 0, false}));
  EXPECT_TRUE(budget.Take({1, 0, 0, false}));
}

TEST(FoldingBudget, ProductsCountTheirProduct) {
  FoldingBudget budget{Program()};
  constexpr std::int64_t kSide = std::int64_t{1} << 14;
  static_assert(kSide * kSide == limits::kFoldingWork);
  EXPECT_FALSE(budget.Take({kSide + 1, kSide, kSide, true}));
  EXPECT_FALSE(budget.Take({std::int64_t{1} << 40, kSide, kSide, true}));
  EXPECT_TRUE(budget.Take({kSide, kSide, kSide, true}));
  EXPECT_FALSE(budget.Take({1, 1, 1, true}));
  EXPECT_TRUE(budget.Take({std::int64_t{1} << 40, 0, 0, true}));
}

}  // namespace
}  // namespace ulmora::engine::program
