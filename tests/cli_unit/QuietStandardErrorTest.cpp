#include "cli/QuietStandardError.h"
#include "tests/cli_unit/TiffBytes.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

namespace ulmora::cli {
namespace {

/// Sends both descriptors to files of a folder while it lives.
class DescriptorsToFiles {
 public:
  DescriptorsToFiles() : output_(dup(STDOUT_FILENO)), error_(dup(STDERR_FILENO)) {
    std::cout.flush();
    std::fflush(stdout);
    Send(STDOUT_FILENO, folder_.Path("out"));
    Send(STDERR_FILENO, folder_.Path("err"));
  }
  ~DescriptorsToFiles() { End(); }

  void End() {
    if (output_ < 0) return;
    std::cout.flush();
    std::fflush(stdout);
    dup2(output_, STDOUT_FILENO);
    dup2(error_, STDERR_FILENO);
    close(output_);
    close(error_);
    output_ = -1;
  }
  [[nodiscard]] std::string Output() const { return test::ReadFile(folder_.Path("out")); }
  [[nodiscard]] std::string Error() const { return test::ReadFile(folder_.Path("err")); }

 private:
  static void Send(int descriptor, const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(file, descriptor);
    close(file);
  }

  test::TemporaryFolder folder_;
  int output_;
  int error_;
};

void SayOnBoth(const char* text) {
  std::cout << text;
  std::cerr << text;
  std::fputs(text, stdout);
  std::fputs(text, stderr);
}

TEST(QuietStandardError, DropsWhatIsWrittenWhileItLivesAndNothingElse) {
  DescriptorsToFiles files;
  SayOnBoth("before ");
  {
    const QuietStandardError quiet;
    SayOnBoth("dropped ");
  }
  SayOnBoth("after ");
  files.End();
  EXPECT_EQ(files.Output(), "before before after after ");
  EXPECT_EQ(files.Error(), "before before after after ");
}

TEST(QuietStandardError, PutsTheDescriptorsBackWhenAnExceptionPasses) {
  DescriptorsToFiles files;
  try {
    const QuietStandardError quiet;
    throw 1;
  } catch (int) {
    std::cerr << "heard";
  }
  files.End();
  EXPECT_EQ(files.Error(), "heard");
}

TEST(QuietStandardError, LeavesNoDescriptorOpen) {
  const int before = dup(STDIN_FILENO);
  close(before);
  for (int i = 0; i < 3; ++i) const QuietStandardError quiet;
  const int after = dup(STDIN_FILENO);
  close(after);
  EXPECT_EQ(after, before);
}

TEST(OccupyStandardDescriptors, TakesTheNumbersThatTheParentClosed) {
  const auto child = [] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    OccupyStandardDescriptors();
    const bool open = fcntl(STDIN_FILENO, F_GETFD) >= 0 && fcntl(STDOUT_FILENO, F_GETFD) >= 0;
    _exit(open ? 0 : 1);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ulmora::cli
