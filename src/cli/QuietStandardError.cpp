#include "cli/QuietStandardError.h"

#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

namespace ulmora::cli {
namespace {

void FlushEverything() {
  std::cout.flush();
  std::cerr.flush();
  std::clog.flush();
  std::fflush(stdout);
  std::fflush(stderr);
}

int SaveAndSilence(int descriptor, int nullDevice) {
  const int saved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (saved >= 0) dup2(nullDevice, descriptor);
  return saved;
}

void Restore(int descriptor, int saved) {
  if (saved < 0) return;
  dup2(saved, descriptor);
  close(saved);
}

}  // namespace

void OccupyStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    // open() gives the lowest free number, which is this one if it was closed, since all below it are open by now.
    if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDWR) != descriptor) return;
  }
}

QuietStandardError::QuietStandardError() {
  FlushEverything();
  const int nullDevice = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nullDevice < 0) return;
  savedOutput_ = SaveAndSilence(STDOUT_FILENO, nullDevice);
  savedError_ = SaveAndSilence(STDERR_FILENO, nullDevice);
  close(nullDevice);
}

QuietStandardError::~QuietStandardError() {
  FlushEverything();
  Restore(STDOUT_FILENO, savedOutput_);
  Restore(STDERR_FILENO, savedError_);
}

}  // namespace ulmora::cli
