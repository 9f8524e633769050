#include "cli/InputRange.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

namespace ulmora::cli {
namespace {

TEST(InputRange, AnEmptyRecordHasNoRangeAndNoPercentage) {
  EXPECT_EQ(InputRange().Describe(255.0),
            "scalar_samples=0 finite=0 nonfinite=0 physical_range=unavailable type_normalized_range=unavailable "
            "below_zero=0 (0%) above_one=0 (0%)");
}

TEST(InputRange, CountsByTheScaledValueAndKeepsStoredExtrema) {
  InputRange range;
  for (const double sample : {-1.0, 0.0, 3.0, 4.0, 5.0}) range.Add(sample, 4.0);
  EXPECT_EQ(range.belowZero, 1U);
  EXPECT_EQ(range.aboveOne, 1U);  // 4 is exactly 1
  EXPECT_EQ(range.Describe(4.0),
            "scalar_samples=5 finite=5 nonfinite=0 physical_range=[-1,5] type_normalized_range=[-0.25,1.25] "
            "below_zero=1 (20%) above_one=1 (20%)");
}

TEST(InputRange, PercentagesAreOfAllSamplesNonfiniteOnesIncluded) {
  InputRange range;
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double sample : std::array{std::nan(""), infinity, -infinity, -2.0}) range.Add(sample, 1.0);
  EXPECT_EQ(range.Describe(1.0),
            "scalar_samples=4 finite=1 nonfinite=3 physical_range=[-2,-2] type_normalized_range=[-2,-2] "
            "below_zero=1 (25%) above_one=0 (0%)");
}

TEST(InputRange, OnlyNonfiniteSamplesLeaveTheRangeUnavailable) {
  InputRange range;
  range.Add(NAN, 1.0);
  EXPECT_EQ(range.Describe(1.0),
            "scalar_samples=1 finite=0 nonfinite=1 physical_range=unavailable type_normalized_range=unavailable "
            "below_zero=0 (0%) above_one=0 (0%)");
}

TEST(InputRange, PrintsSeventeenSignificantDigits) {
  InputRange range;
  range.Add(1.0, 255.0);
  EXPECT_NE(range.Describe(255.0).find("type_normalized_range=[0.0039215686274509803,0.0039215686274509803]"),
            std::string::npos);
}

TEST(InputRange, MergingEqualsAddingAll) {
  InputRange all;
  InputRange first;
  InputRange second;
  int i = 0;
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double sample : std::array{-1.0, std::nan(""), 0.5, 7.0, infinity, -3.0}) {
    all.Add(sample, 2.0);
    (i++ % 2 == 0 ? first : second).Add(sample, 2.0);
  }
  first.Merge(second);
  EXPECT_EQ(first.Describe(2.0), all.Describe(2.0));
}

}  // namespace
}  // namespace ulmora::cli
