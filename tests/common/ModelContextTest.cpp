#include "common/ModelContext.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

namespace ulmora::diagnostics {
namespace {

constexpr const char* kDirectory = "directory (CoreML .mlpackage/.mlmodelc models are directory bundles)";

TEST(ModelPathKind, TellsWhatStandsThere) {
  const test::TemporaryFolder folder;
  EXPECT_EQ(ModelPathKind(folder.Path("")), kDirectory);
  EXPECT_EQ(ModelPathKind(folder.Path("absent")), "missing");
  EXPECT_EQ(ModelPathKind(""), "missing");
  std::ofstream(folder.Path("file")) << "x";
  EXPECT_EQ(ModelPathKind(folder.Path("file")), "regular file");
  // A component below a file is missing as well, whatever the system's error says.
  EXPECT_EQ(ModelPathKind(folder.Path("file/below")), "missing");
  ASSERT_EQ(mkfifo(folder.Path("pipe").c_str(), 0600), 0);
  EXPECT_EQ(ModelPathKind(folder.Path("pipe")), "other");
}

TEST(ModelPathKind, FollowsLinks) {
  const test::TemporaryFolder folder;
  std::filesystem::create_directory(folder.Path("weights.mlpackage"));
  std::filesystem::create_symlink("weights.mlpackage", folder.Path("link"));
  std::filesystem::create_symlink("nowhere", folder.Path("dangling"));
  EXPECT_EQ(ModelPathKind(folder.Path("link")), kDirectory);
  EXPECT_EQ(ModelPathKind(folder.Path("dangling")), "missing");
}

TEST(ModelPathKind, OtherFailuresGiveTheirMessage) {
  const test::TemporaryFolder folder;
  std::filesystem::create_symlink("loop", folder.Path("loop"));
  const std::string message = std::make_error_code(std::errc::too_many_symbolic_link_levels).message();
  EXPECT_EQ(ModelPathKind(folder.Path("loop")), "unavailable (" + message + ")");
}

TEST(ModelPathKind, PathsAreUtf8) {
  const test::TemporaryFolder folder;
  const std::string path = folder.Path("\xce\xb1 \xe6\x98\x9f");
  std::filesystem::create_directory(path);
  EXPECT_EQ(ModelPathKind(path), kDirectory);
}

TEST(ModelContext, NamesTheSourceBeforeThePath) {
  const test::TemporaryFolder folder;
  const std::string path = folder.Path("absent.mlpackage");
  EXPECT_EQ(ModelContext("CoreML", ".mlpackage or .mlmodelc directory bundle", path, "backend caller", {}),
            "Model context: backend=CoreML; expected=.mlpackage or .mlmodelc directory bundle; source=backend caller; "
            "resolved path='" +
                path + "'; path kind=missing");
}

TEST(ModelContext, ListsCandidatesInOrderWithDuplicates) {
  const test::TemporaryFolder folder;
  EXPECT_EQ(ModelContext("b", "e", folder.Path(""), "s", {"/one", "/two", "/one"}),
            "Model context: backend=b; expected=e; source=s; resolved path='" + folder.Path("") +
                "'; path kind=" + kDirectory + "; lookup candidates (in order): '/one' '/two' '/one'");
}

}  // namespace
}  // namespace ulmora::diagnostics
