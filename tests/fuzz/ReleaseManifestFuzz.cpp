// Feeds any text to the manifest reader and the version ordering: an answer each time, and an ordering that is one.

#include "cli/ReleaseManifest.h"

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

void Require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "violated: " << what << '\n';
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  ulmora::cli::LatestRelease release;
  // Most inputs have no schema, so the object search is also tried behind one that fits.
  for (const std::string& manifest : {text, R"({"schema": "quorvanthine.cli-tools.latest.v1", "tools": )" + text}) {
    if (ulmora::cli::ParseLatestRelease(manifest, "lumvane", "macos-arm64", release)) {
      Require(!release.version.empty() && !release.build.empty() && !release.download_url.empty(), "all three are set");
    }
  }
  const std::string a = text.substr(0, size / 2);
  const std::string b = text.substr(size / 2);
  Require(ulmora::cli::CompareVersionBuild(a, b, a, b) == 0, "equal to itself");
  Require(ulmora::cli::CompareVersionBuild(a, b, b, a) == -ulmora::cli::CompareVersionBuild(b, a, a, b),
          "antisymmetric");
  return 0;
}
