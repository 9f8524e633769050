#include "tools/LayerTimes.h"

#include <gtest/gtest.h>

namespace ulmora::tools {
namespace {

using engine::StepTime;

const std::vector<StepTime> kSteps = {
    {"conv 'a'", "reorder", 500}, {"conv 'a'", "jit", 1000}, {"relu 'b'", "kernel", 250}, {"conv 'c'", "jit", 4000}};

TEST(LayerTimes, MedianOfEachStep) {
  auto slow = kSteps;
  auto slower = kSteps;
  for (StepTime& step : slow) step.microseconds *= 2;
  for (StepTime& step : slower) step.microseconds *= 10;
  const std::vector<StepTime> medians = MedianTimes({slower, kSteps, slow});
  ASSERT_EQ(medians.size(), kSteps.size());
  EXPECT_EQ(medians[1].operation, "conv 'a'");
  EXPECT_EQ(medians[1].microseconds, 2000);
}

TEST(LayerTimes, ByLayerInTheOrderOfTheRun) {
  const std::vector<LayerTime> layers = ByLayer(kSteps);
  ASSERT_EQ(layers.size(), 3U);
  EXPECT_EQ(layers[0].name, "conv 'a'");
  EXPECT_EQ(layers[0].runners, "reorder + jit");
  EXPECT_DOUBLE_EQ(layers[0].milliseconds, 1.5);
  EXPECT_EQ(layers[2].name, "conv 'c'");
}

TEST(LayerTimes, ByKindMostTimeFirst) {
  const std::vector<LayerTime> kinds = ByKind(kSteps);
  ASSERT_EQ(kinds.size(), 2U);
  EXPECT_EQ(kinds[0].name, "conv");
  EXPECT_DOUBLE_EQ(kinds[0].milliseconds, 5.5);
  EXPECT_EQ(kinds[0].runners, "reorder + jit");
  EXPECT_EQ(kinds[1].name, "relu");
}

}  // namespace
}  // namespace ulmora::tools
