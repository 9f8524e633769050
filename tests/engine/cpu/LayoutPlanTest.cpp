// Which forms the layout plan takes, on problems written by hand and by chance.

#include "engine/cpu/LayoutPlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>

namespace ulmora::engine::cpu {
namespace {

using ::testing::ElementsAre;

constexpr Layout kPlain = Layout::Plain;
constexpr Layout kLast = Layout::ChannelsLast;
constexpr Layout kBlocked = Layout::Blocked;

/// Value 0 is the input; operation i reads value `from` (by default value i) and gives value i + 1.
struct Chain {
  LayoutProblem problem;

  explicit Chain(std::int64_t inputBytes) { problem.bytes.push_back(inputBytes); }

  struct Form {
    Layout source;
    Layout result;
    double cost;
  };
  void Add(const std::vector<Form>& forms, std::int64_t resultBytes) {
    const auto value = static_cast<program::ValueId>(problem.bytes.size() - 1);
    PlannedOperation operation;
    for (const Form& form : forms) operation.forms.push_back({{{value, form.source}}, form.result, form.cost});
    operation.results = {value + 1};
    problem.operations.push_back(std::move(operation));
    problem.bytes.push_back(resultBytes);
  }
  void End() { problem.outputs = {static_cast<program::ValueId>(problem.bytes.size() - 1)}; }
};

TEST(LayoutPlan, ReordersCostByTheirBytes) {
  EXPECT_EQ(ReorderCost(1000, kPlain, kPlain), 0.0);
  EXPECT_EQ(ReorderCost(0, kPlain, kLast), 0.0);
  EXPECT_GT(ReorderCost(1 << 20, kLast, kPlain), ReorderCost(1 << 20, kPlain, kLast));
  EXPECT_GT(ReorderCost(1 << 21, kPlain, kLast), ReorderCost(1 << 20, kPlain, kLast));
}

TEST(LayoutPlan, ALoneOperationTakesItsCheapestForm) {
  Chain chain(0);
  chain.Add({{kPlain, kPlain, 100.0}, {kLast, kLast, 50.0}}, 0);
  chain.End();
  EXPECT_THAT(ChooseForms(chain.problem), ElementsAre(1));
}

TEST(LayoutPlan, ReordersThatCostMoreThanTheyGainAreNotMade) {
  Chain chain(10 << 20);
  chain.Add({{kPlain, kPlain, 100.0}, {kLast, kLast, 50.0}}, 10 << 20);
  chain.End();
  EXPECT_THAT(ChooseForms(chain.problem), ElementsAre(0));
}

TEST(LayoutPlan, AChainSharesItsReorders) {
  // One operation alone would not pay for two reorders; ten do.
  Chain chain(1 << 20);
  for (int i = 0; i < 10; ++i) chain.Add({{kPlain, kPlain, 300.0}, {kBlocked, kBlocked, 150.0}}, 1 << 20);
  chain.End();
  EXPECT_THAT(ChooseForms(chain.problem), ElementsAre(1, 1, 1, 1, 1, 1, 1, 1, 1, 1));
}

TEST(LayoutPlan, OperationsThatDoNotCareFollowTheirNeighbours) {
  Chain chain(1 << 20);
  const std::vector<Chain::Form> convolution = {{kPlain, kPlain, 9000.0}, {kLast, kLast, 1000.0}};
  const std::vector<Chain::Form> activation = {
      {kPlain, kPlain, 10.0}, {kLast, kLast, 10.0}, {kBlocked, kBlocked, 10.0}};
  chain.Add(convolution, 1 << 20);
  chain.Add(activation, 1 << 20);
  chain.Add(activation, 1 << 20);
  chain.Add(convolution, 1 << 20);
  chain.End();
  EXPECT_THAT(ChooseForms(chain.problem), ElementsAre(1, 1, 1, 1));
}

TEST(LayoutPlan, TheCheaperOfTwoLayoutsWinsForSmallTensors) {
  // Channels last is better for the first, blocked for the second, and the tensor between them is small.
  Chain chain(0);
  chain.Add({{kPlain, kLast, 100.0}, {kPlain, kBlocked, 400.0}}, 1 << 10);
  chain.Add({{kLast, kLast, 900.0}, {kBlocked, kBlocked, 500.0}}, 0);
  chain.End();
  EXPECT_THAT(ChooseForms(chain.problem), ElementsAre(0, 1));
}

TEST(LayoutPlan, AReorderIsPaidOnceHoweverManyReadIt) {
  LayoutProblem problem;
  problem.bytes = {1 << 20, 0, 0};
  for (program::ValueId result : {1, 2}) {
    problem.operations.push_back({{{{{0, kLast}}, kLast, 0.0}}, {result}});
  }
  EXPECT_DOUBLE_EQ(PlanCost(problem, {0, 0}), ReorderCost(1 << 20, kPlain, kLast));
}

/// The best of all choices, by trying them.
double BestCost(const LayoutProblem& problem) {
  std::vector<std::size_t> choice(problem.operations.size(), 0);
  double best = std::numeric_limits<double>::infinity();
  while (true) {
    best = std::min(best, PlanCost(problem, choice));
    std::size_t i = 0;
    while (i < choice.size() && ++choice[i] == problem.operations[i].forms.size()) choice[i++] = 0;
    if (i == choice.size()) return best;
  }
}

TEST(LayoutPlan, IsCloseToTheBestOfAllChoices) {
  double total = 0.0;
  double totalBest = 0.0;
  for (std::uint32_t seed = 1; seed <= 60; ++seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> cost(0.0, 2000.0);
    std::uniform_int_distribution<int> bytes(0, 4 << 20);
    Chain chain(bytes(random));
    for (int i = 0; i < 6; ++i) {
      chain.Add({{kPlain, kPlain, cost(random)}, {kLast, kLast, cost(random)}, {kBlocked, kBlocked, cost(random)}},
                bytes(random));
    }
    chain.End();
    const double chosen = PlanCost(chain.problem, ChooseForms(chain.problem));
    const double best = BestCost(chain.problem);
    EXPECT_LE(chosen, 1.3 * best) << "seed " << seed;
    total += chosen;
    totalBest += best;
  }
  EXPECT_LE(total, 1.05 * totalBest);
}

}  // namespace
}  // namespace ulmora::engine::cpu
