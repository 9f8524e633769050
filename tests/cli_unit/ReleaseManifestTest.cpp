#include "cli/ReleaseManifest.h"

#include <gtest/gtest.h>

#include <string>

namespace ulmora::cli {
namespace {

std::string Manifest(const std::string& schema, const std::string& tool, const std::string& platform) {
  return R"({"schema": ")" + schema + R"(", "tools": {"other": {}, "lumvane": )" + tool.substr(0, tool.size() - 1) +
         R"(, "latest": {"macos-arm64": )" + platform + "}}}}";
}

constexpr const char* kSchema = "quorvanthine.cli-tools.latest.v1";
constexpr const char* kTool = R"({"download_url": "https://example.org/a"})";
constexpr const char* kPlatform = R"({"version": "1.4.0", "build": "0150"})";

bool Parse(const std::string& manifest, LatestRelease& release) {
  return ParseLatestRelease(manifest, "lumvane", "macos-arm64", release);
}

bool Parses(const std::string& manifest) {
  LatestRelease release;
  return Parse(manifest, release);
}

TEST(ReleaseManifest, TakesTheThreeTextsOfToolAndPlatform) {
  LatestRelease release;
  ASSERT_TRUE(Parse(Manifest(kSchema, kTool, kPlatform), release));
  EXPECT_EQ(release.version, "1.4.0");
  EXPECT_EQ(release.build, "0150");
  EXPECT_EQ(release.download_url, "https://example.org/a");
}

TEST(ReleaseManifest, RefusesAnotherSchemaBeforeReadingOn) {
  LatestRelease release;
  EXPECT_FALSE(Parse(Manifest("quorvanthine.cli-tools.latest.v2", kTool, kPlatform), release));
  EXPECT_TRUE(release.download_url.empty());
  EXPECT_FALSE(Parses("{}"));
}

TEST(ReleaseManifest, RefusesWhatIsMissingOrEmpty) {
  LatestRelease release;
  const std::string manifest = Manifest(kSchema, kTool, kPlatform);
  EXPECT_FALSE(ParseLatestRelease(manifest, "lumvane", "linux-x86_64", release));
  EXPECT_FALSE(ParseLatestRelease(manifest, "nothing", "macos-arm64", release));
  EXPECT_FALSE(Parses(Manifest(kSchema, kTool, R"({"version": "1.4.0", "build": ""})")));
  EXPECT_FALSE(Parses(Manifest(kSchema, kTool, R"({"version": "1.4.0"})")));
  EXPECT_FALSE(Parses(Manifest(kSchema, R"({"download_url": ""})", kPlatform)));
  EXPECT_FALSE(Parses(Manifest(kSchema, kTool, R"({"version": 14, "build": 150})")));
}

TEST(ReleaseManifest, FieldsFoundBeforeAFailureStay) {
  LatestRelease release;
  EXPECT_FALSE(Parse(Manifest(kSchema, kTool, R"({"version": "1.4.0"})"), release));
  EXPECT_EQ(release.version, "1.4.0");
  EXPECT_EQ(release.download_url, "https://example.org/a");
}

TEST(ReleaseManifest, BracesAndQuotesInStringsEndNothing) {
  LatestRelease release;
  ASSERT_TRUE(Parse(Manifest(kSchema, R"({"note": "a } \" } b", "download_url": "x\"y"})", kPlatform), release));
  EXPECT_EQ(release.download_url, R"(x\"y)");
  EXPECT_EQ(release.build, "0150");
}

TEST(ReleaseManifest, TheFirstOccurrenceOfAKeyWins) {
  const std::string tool = R"({"latest": {"macos-arm64": {"version": "1", "build": "2", "download_url": "inner"}},)"
                           R"( "download_url": "outer"})";
  LatestRelease release;
  ASSERT_TRUE(Parse(R"({"schema": "quorvanthine.cli-tools.latest.v1", "tools": {"lumvane": )" + tool + "}}", release));
  EXPECT_EQ(release.download_url, "inner");
}

TEST(ReleaseManifest, EveryCutAndEveryFlippedByteIsAnAnswer) {
  const std::string manifest = Manifest(kSchema, kTool, kPlatform);
  // The very last brace is not missed: all that is read lies in the object "tools", which is cut out whole.
  for (std::size_t length = 0; length < manifest.size() - 1; ++length) {
    EXPECT_FALSE(Parses(manifest.substr(0, length))) << length;
  }
  for (std::size_t i = 0; i < manifest.size(); ++i) {
    for (const char c : {'"', '\\', '{', '}', ':', '\0'}) {
      std::string damaged = manifest;
      damaged[i] = c;
      LatestRelease release;
      if (Parse(damaged, release)) {
        EXPECT_FALSE(release.version.empty());
      }
    }
  }
}

int CompareVersions(const std::string& a, const std::string& b) {
  return CompareVersionBuild(a, "1", b, "1");
}

TEST(CompareVersionBuild, ComparesPartsAsNumbers) {
  EXPECT_EQ(CompareVersions("1.3.2", "1.3.2"), 0);
  EXPECT_EQ(CompareVersions("1.10", "1.9"), 1);
  EXPECT_EQ(CompareVersions("1.9", "1.10"), -1);
  EXPECT_EQ(CompareVersions("2", "1.99.99"), 1);
  EXPECT_EQ(CompareVersions("1.3", "1.3.0.0"), 0);
  EXPECT_EQ(CompareVersions("1.3.0.1", "1.3"), 1);
}

TEST(CompareVersionBuild, OddTextsBecomeNumbers) {
  EXPECT_EQ(CompareVersions("1..2", "1.0.2"), 0);
  EXPECT_EQ(CompareVersions("1.2-beta", "1.2.0"), 0);
  EXPECT_EQ(CompareVersions("1.3-rc1", "1.3"), 0);
  EXPECT_EQ(CompareVersions("1.2.", "1.2"), 0);
  EXPECT_EQ(CompareVersions("1.2.3.", "1.2.3.0"), 0);
  EXPECT_EQ(CompareVersions("v1.2", ""), 0);
  EXPECT_EQ(CompareVersions("2147483648", "2147483647"), 0);
  EXPECT_EQ(CompareVersions("99999999999999999999999999", "2147483647"), 0);
}

TEST(CompareVersionBuild, BuildsDecideBetweenEqualVersionsAlone) {
  EXPECT_EQ(CompareVersionBuild("1.3.2", "0147", "1.3.2", "147"), 0);
  EXPECT_EQ(CompareVersionBuild("1.3.2", "0147", "1.3.2", "0148"), -1);
  EXPECT_EQ(CompareVersionBuild("1.3.3", "1", "1.3.2", "9999"), 1);
  EXPECT_EQ(CompareVersionBuild("1", "build-12a34", "1", "12"), 0);
  EXPECT_EQ(CompareVersionBuild("1", "none", "1", "0"), 0);
  EXPECT_EQ(CompareVersionBuild("1", "", "1", "1"), -1);
}

}  // namespace
}  // namespace ulmora::cli
