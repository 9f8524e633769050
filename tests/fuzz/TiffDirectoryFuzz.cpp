// Feeds any bytes to the TIFF code: they are refused in an orderly way, or the directory can be read, and the file
// takes a header that then reads back while no old byte but the offset in the file header has changed.

#include "cli/AstroTiffReader.h"
#include "cli/AstroTiffWriter.h"
#include "cli/ByteOrder.h"
#include "cli/TiffDirectory.h"
#include "tests/support/MemoryFile.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace {

using ulmora::cli::TiffDirectory;

void Require(bool holds, const char* what) {
  if (holds) return;
  std::cerr << "violated: " << what << '\n';
  std::abort();
}

void ReadAllFields(std::istream& stream, const TiffDirectory& directory) {
  for (const auto& entry : directory.entries) {
    const auto tag = static_cast<ulmora::cli::TiffTag>(ulmora::cli::Read16(entry.data(), directory.littleEndian));
    try {
      static_cast<void>(ReadFieldValues(stream, directory, tag, "fuzz"));
    } catch (const std::invalid_argument&) {
    }
  }
}

void CheckBitpix(const std::string& description) {
  if (!ulmora::cli::IsAstroTiffHeader(description)) return;
  const std::string updated = ulmora::cli::UpdateAstroTiffBitpix(description, 16);
  Require(updated.find("\nBITPIX  =                   16") != std::string::npos, "the updated header has the line");
}

void CheckWriting(const std::string& bytes, const TiffDirectory& before) {
  const std::string header = "SIMPLE  = T\nEND";
  ulmora::test::MemoryFile file(bytes);
  std::iostream stream(&file);
  ulmora::cli::WriteAstroTiffHeader(stream, "fuzz", header);
  const TiffDirectory after = ulmora::cli::ReadDirectory(stream, "fuzz");
  Require(after.imageDescription == header, "the header reads back");
  Require(after.nextDirectoryOffset == before.nextDirectoryOffset, "further pages stay");
  const std::size_t offsetSize = before.bigTiff ? 8 : 4;
  const std::string written = file.str();
  Require(written.compare(0, offsetSize, bytes, 0, offsetSize) == 0, "the start stays");
  Require(written.compare(2 * offsetSize, bytes.size() - 2 * offsetSize, bytes, 2 * offsetSize) == 0, "the rest stays");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(data, data + size);
  std::istringstream stream(bytes);
  TiffDirectory directory;
  try {
    directory = ulmora::cli::ReadDirectory(stream, "fuzz");
  } catch (const std::invalid_argument&) {
    return 0;
  }
  // A file that can be read may not be refused any more, so nothing is caught here.
  ReadAllFields(stream, directory);
  CheckBitpix(directory.imageDescription);
  CheckWriting(bytes, directory);
  return 0;
}
