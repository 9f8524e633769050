// Feeds any bytes to the FITS reader as a file: they are refused in an orderly way, or give an image that the writer
// can write and the reader reads back in the same storage.

#include "cli/FitsReader.h"
#include "cli/FitsWriter.h"

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

void Require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "violated: " << what << '\n';
  std::abort();
}

/// In memory where the system has such a folder: a file for every input would wear out a disk.
std::string ScratchFile(const char* name) {
  return "/dev/shm/lumvane-fuzz-" + std::to_string(getpid()) + '-' + name + ".fits";
}

void RoundTrip(const ulmora::cli::FitsImage& source, const ulmora::cli::CliDiagnostics& diagnostics) {
  const std::string path = ScratchFile("out");
  try {
    ulmora::cli::WriteFitsImage(path, source.image, false, &source.metadata, ulmora::cli::FitsOutputRole::main,
                                diagnostics);
  } catch (const std::invalid_argument&) {
    // Cards and scalings exist that can be read and not be written.
    return;
  }
  const ulmora::cli::FitsImage again = ulmora::cli::ReadFitsImageWithMetadata(path, true, diagnostics);
  Require(again.metadata.bitpix == source.metadata.bitpix, "the storage type is kept");
  Require(again.image.size() == source.image.size(), "the size is kept");
}

}  // namespace

/// The FITS library forgets buffers when the decoding of a tile fails, some of them in functions without a name, so
/// that only the whole library can be left out. Handles that we forget to close are found by the unit tests' leak
/// check.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libcfitsio";
}

/// A header may make the library ask for more memory than there is; the library expects to be refused.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::ostringstream spoken;
  const ulmora::cli::CliDiagnostics diagnostics{false, false, &spoken};
  const std::string path = ScratchFile("in");
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  try {
    RoundTrip(ulmora::cli::ReadFitsImageWithMetadata(path, false, diagnostics), diagnostics);
  } catch (const std::invalid_argument&) {
  }
  return 0;
}
