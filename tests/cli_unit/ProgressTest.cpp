#include "cli/Progress.h"

#include <gtest/gtest.h>

#include <sstream>

namespace ulmora::cli {
namespace {

template <typename Write>
std::string Written(Write write) {
  std::ostringstream stream;
  write(stream);
  return stream.str();
}

const std::string kStart = R"({"schema":"quorvanthine.cli.progress.v1","event":)";

TEST(Progress, OneTileGivesThreeLines) {
  EXPECT_EQ(Written([](std::ostream& s) {
              WriteProgressStart(s, 1);
              WriteProgress(s, 1, 1);
              WriteProgressFinish(s, 1);
            }),
            kStart + R"("start","stage":"inference","current":0,"total":1,"percent":0.0})" + "\n" + kStart +
                R"("progress","stage":"inference","current":1,"total":1,"percent":100.0})" + "\n" + kStart +
                R"("finish","stage":"inference","current":1,"total":1,"percent":100.0,"ok":true})" + "\n");
}

TEST(Progress, PercentHasOneDecimalAndIsComputedInSinglePrecision) {
  const auto percent = [](int current, int total) {
    return Written([&](std::ostream& s) { WriteWorking(s, current, total); });
  };
  EXPECT_EQ(percent(1, 3), "Working: 33.3%\r");
  EXPECT_EQ(percent(2, 3), "Working: 66.7%\r");
  EXPECT_EQ(percent(3, 3), "Working: 100.0%\r");
  EXPECT_EQ(percent(1, 2000), "Working: 0.1%\r");
  EXPECT_EQ(ProgressPercent(16777217, 33554432), 100.0F * 16777216.0F / 33554432.0F);
}

TEST(Progress, AnErrorHasNeitherCountsNorPercentAndStaysOnOneLine) {
  EXPECT_EQ(Written([](std::ostream& s) {
              WriteProgress(s, 1, 2);
              WriteProgressError(s, "bad \"a\"\nExecutable='x'");
            }),
            kStart + R"("progress","stage":"inference","current":1,"total":2,"percent":50.0})" + "\n" + kStart +
                R"("error","stage":"processing","ok":false,"message":"bad \"a\"\nExecutable='x'"})" + "\n");
}

TEST(Progress, TheLastHumanLineCoversThePercentLine) {
  const std::string done = Written([](std::ostream& s) { WriteWorkingDone(s); });
  EXPECT_EQ(done, "Working: Done! \n\n");
  EXPECT_EQ(done.find('\n'), std::string("Working: 100.0%").size());
}

}  // namespace
}  // namespace ulmora::cli
