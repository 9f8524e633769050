#include "engine/package/Manifest.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using testing::ExpectError;
using testing::ManifestText;
using testing::TemporaryFolder;

class ManifestTest : public ::testing::Test {
 protected:
  std::filesystem::path Read(const std::string& text) { return ReadManifest(folder_.Write("Manifest.json", text)); }

  void ExpectRefused(const std::string& text, const std::vector<std::string>& parts) {
    SCOPED_TRACE(text.substr(0, 200));
    std::vector<std::string> all = parts;
    all.emplace_back("Manifest.json");
    ExpectError(Stage::Open, all, [&] { Read(text); });
  }

  /// The usual manifest with one piece of text replaced.
  static std::string With(const std::string& from, const std::string& to) {
    std::string text = ManifestText();
    const std::size_t position = text.find(from);
    EXPECT_NE(position, std::string::npos) << from;
    return text.replace(position, from.size(), to);
  }

  TemporaryFolder folder_;
};

TEST_F(ManifestTest, TheManifestDecidesWhereTheModelIs) {
  EXPECT_EQ(Read(ManifestText("odd place/network.bin")), "odd place/network.bin");
}

TEST_F(ManifestTest, EscapesAndOtherItemsAndMembersAreFine) {
  EXPECT_EQ(
      Read(R"({"extra": [1, null, {"a": true}], "itemInfoEntries": {"other": 3, "id": {"path": "a\/b\u002emlmodel",
                  "x": {}}}, "rootModelIdentifier": "id", "fileFormatVersion": "0.9.7"})"),
      "a/b.mlmodel");
}

TEST_F(ManifestTest, DamagedJsonIsOneLine) {
  ExpectRefused("", {"is not a JSON document"});
  ExpectRefused("[]", {"is not a JSON object"});
  ExpectRefused("{\"a\": \n\n nonsense}", {"is not a JSON document"});
  ExpectRefused(ManifestText().substr(0, 40), {"is not a JSON document"});
  ExpectRefused(std::string(100'000, '['), {"is not a JSON document"});
  ExpectRefused(std::string(20'000, '[') + std::string(20'000, ']'), {"nested deeper than 64 levels"});
  // Brackets in a text nest nothing.
  ExpectRefused("[\"" + std::string(100, '[') + "\\\"[\"]", {"is not a JSON object"});
  ExpectRefused("{\"a\":" + std::string(100'000, '['), {"is not a JSON document"});
  ExpectRefused("{\"a\": \"\xFF\xFE\"}", {"Manifest.json"});
}

TEST_F(ManifestTest, MissingMembers) {
  ExpectRefused("{}", {"has no 'fileFormatVersion', expected a string"});
  ExpectRefused(With("rootModelIdentifier", "rootmodel"), {"has no 'rootModelIdentifier'"});
  ExpectRefused(With("itemInfoEntries", "items"), {"has no 'itemInfoEntries', expected an object"});
  ExpectRefused(With("\"path\"", "\"Path\""), {"has no 'path'"});
}

TEST_F(ManifestTest, MembersOfAnotherKind) {
  ExpectRefused(With("\"1.0.0\"", "1"), {"'fileFormatVersion' is not a string"});
  ExpectRefused(With("\"rootModelIdentifier\": \"M\"", "\"rootModelIdentifier\": {}"),
                {"'rootModelIdentifier' is not a string"});
  ExpectRefused(R"({"fileFormatVersion": "1.0.0", "rootModelIdentifier": "M", "itemInfoEntries": []})",
                {"'itemInfoEntries' is not an object"});
  ExpectRefused(R"({"fileFormatVersion": "1.0.0", "rootModelIdentifier": "M", "itemInfoEntries": {"M": "x"}})",
                {"'M' is not an object"});
}

TEST_F(ManifestTest, RootMustBeAmongTheItems) {
  ExpectRefused(With("\"rootModelIdentifier\": \"M\"", "\"rootModelIdentifier\": \"N\""),
                {"has no item 'N', which is to be the root model"});
}

TEST_F(ManifestTest, NewerFormatsAreRefused) {
  for (const char* version : {"1.0.1", "1.1.0", "2.0.0"}) {
    ExpectRefused(With("1.0.0", version), {std::string("is of format version ") + version});
  }
  for (const char* version : {"0.0.0", "0.99.99"}) EXPECT_NO_THROW(Read(With("1.0.0", version)));
  for (const char* version : {"", "1", "1.0", "1.0.0.0", "1.0.x", "1..0", "-1.0.0", "1.0.0 ", "99999999999.0.0"}) {
    ExpectRefused(With("1.0.0", version), {"expected three integers"});
  }
}

TEST_F(ManifestTest, PathsOutsideThePackageAreRefused) {
  for (const char* path : {"", "/etc/passwd", "../x", "a/../../x", "a/..", "a\\nb"}) {
    ExpectRefused(ManifestText(path), {"does not lie within the package"});
  }
  EXPECT_EQ(Read(ManifestText("a/..b/c..")), "a/..b/c..");
}

TEST_F(ManifestTest, AnAbsurdlyLargeManifestIsNotRead) {
  ExpectRefused(std::string((1 << 20) + 1, ' '), {"expected at most 1048576"});
}

}  // namespace
}  // namespace ulmora::engine::package
