#include "cli/CliDiagnostics.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

namespace ulmora::cli {
namespace {

std::string Said(bool quiet, bool machine, const std::function<void(const CliDiagnostics&)>& say) {
  std::ostringstream stream;
  say(CliDiagnostics{quiet, machine, &stream});
  return stream.str();
}

TEST(CliDiagnostics, WritesOneLineForPeople) {
  EXPECT_EQ(Said(false, false, [](const auto& d) { d.Info("input", "Reading a.tif"); }),
            "Info [input]: Reading a.tif\n");
  EXPECT_EQ(Said(false, false, [](const auto& d) { d.Warn(CliWarning::DataLoss, "clipped"); }),
            "Warning [data_loss]: clipped\n");
}

TEST(CliDiagnostics, WritesOneJsonObjectForPrograms) {
  EXPECT_EQ(Said(false, true, [](const auto& d) { d.Info("input", "Reading \"a\""); }),
            R"({"schema":"quorvanthine.cli.diagnostic.v1","severity":"info","code":"input","message":"Reading \"a\""})"
            "\n");
  EXPECT_EQ(Said(false, true, [](const auto& d) { d.Warn(CliWarning::OutputFidelity, "less"); }),
            R"({"schema":"quorvanthine.cli.diagnostic.v1","severity":"warning","code":"output_fidelity",)"
            R"("message":"less"})"
            "\n");
}

TEST(CliDiagnostics, QuietDropsInfoButNeverAWarning) {
  for (const bool machine : {false, true}) {
    EXPECT_EQ(Said(true, machine, [](const auto& d) { d.Info("input", "x"); }), "");
    EXPECT_NE(Said(true, machine, [](const auto& d) { d.Warn(CliWarning::DataLoss, "x"); }), "");
  }
}

TEST(CliDiagnostics, NamesEveryWarning) {
  const auto line = [](CliWarning code) { return Said(false, false, [&](const auto& d) { d.Warn(code, "x"); }); };
  EXPECT_EQ(line(CliWarning::DataLoss), "Warning [data_loss]: x\n");
  EXPECT_EQ(line(CliWarning::OutputFidelity), "Warning [output_fidelity]: x\n");
  EXPECT_EQ(line(CliWarning::ExecutionFallback), "Warning [execution_fallback]: x\n");
  EXPECT_EQ(line(static_cast<CliWarning>(7)), "Warning [execution_fallback]: x\n");
}

TEST(CliDiagnostics, DropsAWarningsOwnPrefixOnce) {
  const auto warned = [](const std::string& text) {
    return Said(false, false, [&](const auto& d) { d.Warn(CliWarning::DataLoss, text); });
  };
  EXPECT_EQ(warned("Warning: a"), "Warning [data_loss]: a\n");
  EXPECT_EQ(warned("Warning: Warning: a"), "Warning [data_loss]: Warning: a\n");
  EXPECT_EQ(warned("a Warning: b"), "Warning [data_loss]: a Warning: b\n");
  EXPECT_EQ(warned("Warning:a"), "Warning [data_loss]: Warning:a\n");
  EXPECT_EQ(Said(false, false, [](const auto& d) { d.Info("t", "Warning: a"); }), "Info [t]: Warning: a\n");
  EXPECT_NE(
      Said(false, true, [](const auto& d) { d.Warn(CliWarning::DataLoss, "Warning: a"); }).find(R"("message":"a"})"),
      std::string::npos);
}

TEST(CliDiagnostics, KeepsOneDiagnosticOnOneLine) {
  EXPECT_EQ(Said(false, false, [](const auto& d) { d.Info("a\nb", "path \"x\"\nnext\x01"); }),
            "Info [a\\nb]: path \\\"x\\\"\\nnext\\u0001\n");
  EXPECT_EQ(CliDiagnostics::Escape("a\\\"\n"), R"(a\\\"\n)");
}

TEST(CliDiagnostics, TakesAnySeverityButWarningForInfo) {
  EXPECT_EQ(Said(true, false, [](const auto& d) { d.Write("notice", "c", "Warning: m"); }), "Info [c]: Warning: m\n");
}

TEST(CliDiagnostics, PassesUtf8ThroughInBothForms) {
  const std::string path = "Reading M\xc3\xbcnchen.tif";
  for (const bool machine : {false, true}) {
    EXPECT_NE(Said(false, machine, [&](const auto& d) { d.Info("input", path); }).find(path), std::string::npos);
  }
}

}  // namespace
}  // namespace ulmora::cli
