#include "cli/CommandLine.h"
#include "tests/support/CapturedStream.h"
#include "tests/support/Compare.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <vector>

namespace ulmora::cli {
namespace {

using Words = std::vector<const char*>;

JobArguments Parse(Words words, bool reportsItself = false) {
  words.insert(words.begin(), "lumvane");
  CommandLine commandLine("message", "1.3.2", reportsItself);
  return commandLine.Parse(static_cast<int>(words.size()), words.data());
}

/// The failure as the driver words it.
std::string Refusal(const Words& words) {
  try {
    Parse(words);
  } catch (const TCLAP::ArgException& error) {
    return "Error: " + error.error() + " for arg " + error.argId();
  }
  return "none";
}

std::string Invalid(const Words& words) {
  return test::ThrownText<std::invalid_argument>([&] { ValidateArguments(Parse(words)); });
}

TEST(HasArg, ComparesWholeWordsBehindTheFirst) {
  const Words words = {"--linear", "-o", "--machine-info", "--machine-progress=1", nullptr, "--quiet"};
  const auto has = [&](const std::string& flag) { return HasArg(static_cast<int>(words.size()), words.data(), flag); };
  EXPECT_TRUE(has("--machine-info"));  // also in the place of a value
  EXPECT_TRUE(has("--quiet"));         // also behind a null entry
  EXPECT_FALSE(has("--linear"));       // the program's own name is not looked at
  EXPECT_FALSE(has("--machine-progress"));
  EXPECT_FALSE(has("--machine"));
  EXPECT_FALSE(HasArg(0, words.data(), "-o"));
  EXPECT_FALSE(HasArg(2, words.data(), "--machine-info"));  // words past the count are not there
}

TEST(CommandLine, HasTheDefaultsOfTheOptionTable) {
  const JobArguments arguments = Parse({"-i", "a.tif"});
  EXPECT_EQ(arguments.inputPath, "a.tif");
  EXPECT_EQ(arguments.outputPath, "denoised.jpg");
  EXPECT_EQ(arguments.weightsPath, "");
  EXPECT_EQ(arguments.stride, 480);
  EXPECT_EQ(arguments.modelVersion, 2);
  EXPECT_EQ(arguments.shadowsClipping, -2.8);
  EXPECT_EQ(arguments.targetBackground, 0.25);
  EXPECT_FALSE(arguments.linear || arguments.linearParametersSet || arguments.quiet || arguments.machineProgress);
}

TEST(CommandLine, TakesEveryOptionInBothForms) {
  const JobArguments shorts = Parse({"-i", "a b.tif", "-o", "b", "-w", "c", "-s", "2", "-m", "1", "-q"});
  EXPECT_EQ(shorts.inputPath, "a b.tif");
  EXPECT_EQ(shorts.outputPath, "b");
  EXPECT_EQ(shorts.weightsPath, "c");
  EXPECT_EQ(shorts.stride, 2);
  EXPECT_EQ(shorts.modelVersion, 1);
  EXPECT_TRUE(shorts.quiet);
  const JobArguments longs = Parse({"--machine-progress", "--linear", "--shadows-clipping", "-1.5",
                                    "--target-background", ".5", "--model", "3", "--stride", "-4", "--weights", "w",
                                    "--output", "o", "--quiet", "--input", "i", "--machine-info", "--check-updates"});
  EXPECT_EQ(longs.inputPath, "i");
  EXPECT_EQ(longs.shadowsClipping, -1.5);
  EXPECT_EQ(longs.targetBackground, 0.5);
  EXPECT_EQ(longs.stride, -4);
  EXPECT_TRUE(longs.linear && longs.linearParametersSet && longs.quiet && longs.machineProgress);
}

TEST(CommandLine, AnEmptyOverrideIsNone) {
  EXPECT_EQ(Parse({"-i", "a", "-w", ""}).weightsPath, "");
}

TEST(CommandLine, AFlagInThePlaceOfAValueIsTheValue) {
  const JobArguments arguments = Parse({"-i", "--machine-progress"});
  EXPECT_EQ(arguments.inputPath, "--machine-progress");
  EXPECT_FALSE(arguments.machineProgress);
}

TEST(CommandLine, ThrowsTheParsersOwnWordsInMachineMode) {
  EXPECT_EQ(Refusal({"--machine-progress"}), "Error: Required argument missing: input for arg  ");
  EXPECT_EQ(Refusal({"-i", "a", "--machine-info=1"}),
            "Error: Couldn't find match for argument for arg Argument: --machine-info=1");
  EXPECT_EQ(Refusal({"-i", "a", "-s", "480abc"}),
            "Error: Couldn't read argument value from string '480abc' for arg Argument: -s (--stride)");
  EXPECT_EQ(Refusal({"-i", "a", "--shadows-clipping", "nan"}),
            "Error: Couldn't read argument value from string 'nan' for arg Argument: (--shadows-clipping)");
  EXPECT_EQ(Refusal({"-i", "a", "-v"}), "Error: Couldn't find match for argument for arg Argument: -v");
  EXPECT_EQ(Refusal({"-i", "a", "-q", "-q"}), "Error: Argument already set! for arg Argument: -q (--quiet)");
  EXPECT_EQ(Refusal({"-i"}), "Error: Missing a value for this argument! for arg Argument: -i (--input)");
}

TEST(CommandLine, HelpAndVersionLeaveByAnExceptionOfStatusZeroInMachineMode) {
  for (const char* word : {"--help", "-h", "--version"}) {
    const test::CapturedStream out(std::cout);
    try {
      Parse({word, "--machine-progress"});
      ADD_FAILURE() << word << " did not leave";
    } catch (const TCLAP::ExitException& exit) {
      EXPECT_EQ(const_cast<TCLAP::ExitException&>(exit).getExitStatus(), 0);
    }
    EXPECT_NE(out.Text(), "");
  }
}

TEST(CommandLineDeathTest, ExitsByItselfOtherwise) {
  EXPECT_EXIT(static_cast<void>(Parse({"-o", "a"}, true)), testing::ExitedWithCode(1),
              "PARSE ERROR:.*\n *Required argument missing: input");
  EXPECT_EXIT(static_cast<void>(Parse({"--help"}, true)), testing::ExitedWithCode(0), "");
}

TEST(CommandLineDeathTest, WordsBehindTwoDashesAreIgnored) {
  // In a process of its own: the parser keeps the two dashes in a static.
  const auto parse = [] {
    const JobArguments arguments = Parse({"-i", "a", "--", "--machine-progress", "-o", "b"});
    std::exit(arguments.machineProgress || arguments.outputPath != "denoised.jpg" ? 1 : 0);
  };
  EXPECT_EXIT(parse(), testing::ExitedWithCode(0), "");
}

TEST(ValidateArguments, ParametersOfTheLinearModeNeedIt) {
  const std::string text = "--shadows-clipping and --target-background require --linear.";
  EXPECT_EQ(Invalid({"-i", "a", "--target-background", "0.25"}), text);  // although it is the default
  EXPECT_EQ(Invalid({"-i", "a", "--shadows-clipping", "-2.8"}), text);
  EXPECT_EQ(Invalid({"-i", "a", "--model", "3", "--target-background", "2"}), text);
  EXPECT_EQ(Invalid({"-i", "a", "--shadows-clipping", ""}), text);  // an empty value counts as given
}

TEST(ValidateArguments, DoesNotJudgeTheirValues) {
  EXPECT_EQ(Invalid({"-i", "a", "--linear", "--shadows-clipping", "-1"}), "no exception");
  EXPECT_EQ(Invalid({"-i", "a", "--shadows-clipping", "1", "--linear"}), "no exception");
  EXPECT_EQ(Invalid({"-i", "a", "--linear"}), "no exception");
}

TEST(ValidateArguments, KnowsTwoModelVersions) {
  const std::string text = "Model version should be 1 or 2!";
  for (const char* version : {"0", "3", "-1"}) EXPECT_EQ(Invalid({"-i", "a", "-m", version}), text);
  for (const char* version : {"1", "2"}) EXPECT_EQ(Invalid({"-i", "a", "-m", version}), "no exception");
}

}  // namespace
}  // namespace ulmora::cli
