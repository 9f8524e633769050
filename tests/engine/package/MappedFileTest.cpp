#include "engine/package/MappedFile.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <utility>

namespace ulmora::engine::package {
namespace {

using testing::ExpectError;
using testing::TemporaryFolder;

std::string TextOf(const MappedFile& file) {
  return {reinterpret_cast<const char*>(file.bytes().data()), file.bytes().size()};
}

TEST(MappedFile, ShowsTheBytes) {
  const TemporaryFolder folder;
  MappedFile first(folder.Write("file", "content"), 100, Stage::Open);
  EXPECT_EQ(TextOf(first), "content");
  const MappedFile second(std::move(first));
  EXPECT_EQ(TextOf(second), "content");
  EXPECT_TRUE(first.bytes().empty());  // NOLINT(bugprone-use-after-move): the moved-from state is what is tested
}

TEST(MappedFile, AnEmptyFileHasNoBytes) {
  const TemporaryFolder folder;
  EXPECT_TRUE(MappedFile(folder.Write("file", ""), 100, Stage::Open).bytes().empty());
}

TEST(MappedFile, RefusesWhatIsMissingOrTooLarge) {
  const TemporaryFolder folder;
  ExpectError(Stage::Load, {"cannot open", "missing", "No such file"},
              [&] { MappedFile(folder.path() / "missing", 100, Stage::Load); });
  const auto file = folder.Write("file", "12345");
  EXPECT_NO_THROW(MappedFile(file, 5, Stage::Open));
  ExpectError(Stage::Open, {"has 5 bytes, expected at most 4"}, [&] { MappedFile(file, 4, Stage::Open); });
}

TEST(MappedFile, RefusesWhatIsNoRegularFileWithoutWaiting) {
  const TemporaryFolder folder;
  ExpectError(Stage::Open, {"is not a regular file"}, [&] { MappedFile(folder.path(), 100, Stage::Open); });
  const auto pipe = folder.path() / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  ExpectError(Stage::Open, {"is not a regular file"}, [&] { MappedFile(pipe, 100, Stage::Open); });
}

}  // namespace
}  // namespace ulmora::engine::package
