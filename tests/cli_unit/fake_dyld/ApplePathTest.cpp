#include "cli/ModelLookup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <mach-o/dyld.h>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string executable;
bool vanishes = false;
// Whether there was a buffer, and the size that came with it.
std::vector<std::pair<bool, std::uint32_t>> calls;

}  // namespace

// As the platform's: fails and tells the size with its end if the buffer is too small.
int _NSGetExecutablePath(char* buffer, std::uint32_t* size) {
  calls.emplace_back(buffer != nullptr, *size);
  const auto needed = static_cast<std::uint32_t>(executable.size() + 1);
  if (buffer != nullptr && vanishes) return -1;
  if (*size < needed) {
    *size = needed;
    return -1;
  }
  std::memcpy(buffer, executable.c_str(), needed);
  return 0;
}

namespace ulmora::cli {
namespace {

using testing::ElementsAre;
using testing::Pair;

TEST(ApplePath, IsAskedForItsSizeAndThenTakenAsItIs) {
  vanishes = false;
  for (const std::string path : {"/opt/lumvane/bin/../lumvane", "lumvane", "/p\xc3\xa4th/with blanks/lumvane"}) {
    calls.clear();
    executable = path;
    EXPECT_EQ(GetExecutablePath(), path);
    EXPECT_THAT(calls, ElementsAre(Pair(false, 0U), Pair(true, path.size() + 1)));
  }
}

TEST(ApplePath, IsEmptyWhenThePlatformCannotTell) {
  executable = "/opt/lumvane/lumvane";
  vanishes = true;
  EXPECT_EQ(GetExecutablePath(), "");
}

}  // namespace
}  // namespace ulmora::cli
