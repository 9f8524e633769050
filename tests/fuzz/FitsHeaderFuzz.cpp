// Feeds any text to the header writer as the cards of a source: they are refused in an orderly way, or the output is a
// FITS file that opens again with the structure that the writer gave it.

#include "cli/FitsReader.h"
#include "cli/FitsWriter.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

constexpr std::size_t kCardLength = 80;

void Require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "violated: " << what << '\n';
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::ostringstream spoken;
  const ulmora::cli::CliDiagnostics diagnostics{false, false, &spoken};
  const std::string path = "/dev/shm/lumvane-fuzz-" + std::to_string(getpid()) + "-cards.fits";
  ulmora::cli::FitsMetadata metadata;
  std::string text(data, data + size);
  // What the reader delivers are C strings of at most one card.
  std::replace(text.begin(), text.end(), '\0', ' ');
  for (std::size_t i = 0; i < text.size(); i += kCardLength)
    metadata.headerCards.push_back(text.substr(i, kCardLength));
  try {
    ulmora::cli::WriteFitsImage(path, cv::Mat(2, 3, CV_32FC1, cv::Scalar(0.5)), false, &metadata,
                                ulmora::cli::FitsOutputRole::main, diagnostics);
  } catch (const std::invalid_argument&) {
    return 0;
  }
  const ulmora::cli::FitsImage read = ulmora::cli::ReadFitsImageWithMetadata(path, true, diagnostics);
  Require(read.image.size() == cv::Size(3, 2) && read.metadata.bitpix == -32, "the structure is the writer's");
  return 0;
}
