#include "cli/ModelLookup.h"
#include "cli/WithModelContext.h"
#include "tests/support/Compare.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace ulmora::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kPackage = "Lumvane_weights_v2.mlpackage";

TEST(ModelLookup, ListsFivePlacesInOrder) {
  EXPECT_THAT(WeightsCandidatesFrom("/opt/lumvane/bin", "lumvane", kPackage),
              ElementsAre("/opt/lumvane/bin/" + kPackage, "/opt/lumvane/bin/lib/lumvane/" + kPackage,
                          "/opt/lumvane/lib/lumvane/" + kPackage, "/usr/local/lib/lumvane/" + kPackage,
                          "/usr/lib/lumvane/" + kPackage));
}

TEST(ModelLookup, KeepsEqualPlaces) {
  const std::vector<std::string> places = WeightsCandidatesFrom("/usr/local/bin", "lumvane", kPackage);
  ASSERT_EQ(places.size(), 5U);
  EXPECT_EQ(places[2], places[3]);
}

TEST(ModelLookup, AnUnknownExecutableGivesRelativePlaces) {
  const std::vector<std::string> places = WeightsCandidatesFrom(".", "lumvane", kPackage);
  EXPECT_EQ(places[0], "./" + kPackage);
  EXPECT_EQ(places[1], "./lib/lumvane/" + kPackage);
  EXPECT_EQ(places[2], "lib/lumvane/" + kPackage);
}

TEST(ModelLookup, AnAbsolutePackageNameReplacesThePlace) {
  for (const std::string& place : WeightsCandidatesFrom("/opt/bin", "lumvane", "/x/y")) EXPECT_EQ(place, "/x/y");
}

TEST(ModelLookup, KnowsTheRunningExecutable) {
  const std::filesystem::path self = GetExecutablePath();
  EXPECT_TRUE(std::filesystem::equivalent(self, THIS_PROGRAM)) << self;
  EXPECT_EQ(GetExecutableDirectory(), self.parent_path().string());
  EXPECT_EQ(DefaultWeightsCandidates("tool", "p"), WeightsCandidatesFrom(self.parent_path(), "tool", "p"));
}

TEST(ModelLookup, TakesTheFirstThatExistsWhateverItIs) {
  test::TemporaryFolder folder;
  const std::string missing = folder.Path("missing");
  const std::string file = folder.Path("file");
  const std::string directory = folder.Path("directory");
  std::ofstream(file) << "x";
  std::filesystem::create_directory(directory);
  EXPECT_EQ(FirstExisting({missing, directory, file}), directory);
  EXPECT_EQ(FirstExisting({missing, file, directory}), file);
  // A path that cannot be asked for counts as absent.
  EXPECT_EQ(FirstExisting({file + "/" + kPackage, std::string(5000, 'x'), directory}), directory);
  EXPECT_EQ(FirstExisting({missing, missing + "2"}), missing);
}

TEST(ModelLookup, WithoutAnyPackageResolvesToThePlaceBesideTheExecutable) {
  EXPECT_EQ(ResolveDefaultWeights("no-such-tool", "no-such.mlpackage"),
            GetExecutableDirectory() + "/no-such.mlpackage");
}

TEST(ModelLookup, AutomaticLookupTextNamesAllPlaces) {
  const std::string package = "no-such.mlpackage";
  const std::string resolved = ResolveDefaultWeights("no-such-tool", package);
  std::string expected = "Executable='" + GetExecutablePath() + "'; working directory='" +
                         std::filesystem::current_path().string() +
                         "'; Model context: backend=CoreML; expected=no-such.mlpackage; source=automatic lookup; "
                         "resolved path='" +
                         resolved + "'; path kind=missing; lookup candidates (in order):";
  for (const std::string& place : DefaultWeightsCandidates("no-such-tool", package)) expected += " '" + place + "'";
  EXPECT_EQ(ModelLookupDiagnostic("no-such-tool", package, resolved, false, BackendDisplayName()), expected);
}

TEST(ModelLookup, AnOverrideIsTheOnlyCandidateButDoesNotChangeWhatIsExpected) {
  const std::string text = ModelLookupDiagnostic("lumvane", kPackage, "/no/such/v1.mlpackage", true, "CoreML");
  EXPECT_THAT(text, HasSubstr("; expected=" + kPackage +
                              "; source=explicit --weights override; "
                              "resolved path='/no/such/v1.mlpackage'; path kind=missing; "
                              "lookup candidates (in order): '/no/such/v1.mlpackage'"));
  EXPECT_THAT(text, testing::EndsWith("(in order): '/no/such/v1.mlpackage'"));
  EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(ModelLookup, ARegularFileInThePlaceOfAPackageShowsItsKind) {
  test::TemporaryFolder folder;
  std::ofstream(folder.Path("file")) << "x";
  EXPECT_THAT(ModelLookupDiagnostic("lumvane", kPackage, folder.Path("file"), false, "CoreML"),
              HasSubstr("; path kind=regular file; "));
}

TEST(ModelLookup, AVanishedWorkingDirectoryIsUnavailable) {
  const std::filesystem::path before = std::filesystem::current_path();
  test::TemporaryFolder folder;
  const std::filesystem::path gone = folder.Path("gone");
  std::filesystem::create_directory(gone);
  std::filesystem::current_path(gone);
  std::filesystem::remove(gone);
  const std::string text = ModelLookupDiagnostic("lumvane", kPackage, "/x", true, "CoreML");
  std::filesystem::current_path(before);
  EXPECT_THAT(text, HasSubstr("; working directory='unavailable'; "));
}

TEST(WithModelContext, ReturnsWhatTheJobReturns) {
  EXPECT_EQ(diagnostics::WithModelContext("context", [] { return 7; }), 7);
  bool ran = false;
  diagnostics::WithModelContext("context", [&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(WithModelContext, AddsTheContextAndDropsTheType) {
  EXPECT_EQ(test::ThrownText<std::runtime_error>(
                [] { diagnostics::WithModelContext("context", [] { throw std::invalid_argument("bad"); }); }),
            "bad\ncontext");
}

TEST(WithModelContext, LetsPassWhatIsNoStandardException) {
  EXPECT_THROW(diagnostics::WithModelContext("context", [] { throw 7; }), int);
}

}  // namespace
}  // namespace ulmora::cli
