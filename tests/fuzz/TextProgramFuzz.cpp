// Feeds any text as the program of a compiled bundle: it is refused by the engine's one exception, with one line of
// text, or it is read. make_text_corpus.py makes seeds from the committed bundles, text_program.dict holds the words.
//
// The bundle has one weight file whose only record, at offset 64, holds two float16 elements.

#include "engine/Error.h"
#include "engine/package/text/ProgramParser.h"
#include "tests/support/TemporaryFolder.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>

namespace {

namespace fs = std::filesystem;
using namespace ulmora::engine;

std::string LittleEndian(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += static_cast<char>((value >> (8 * i)) & 0xFFU);
  return text;
}

/// A bundle folder for the whole run.
class BundleFolder {
 public:
  BundleFolder() {
    fs::create_directories(folder_.Path("weights"));
    constexpr std::uint32_t kFloat16 = 1;
    const std::string header = LittleEndian(1, 4) + LittleEndian(2, 4) + std::string(56, '\0');
    const std::string record = LittleEndian(0xDEADBEEF, 4) + LittleEndian(kFloat16, 4) + LittleEndian(4, 8) +
                               LittleEndian(128, 8) + std::string(40, '\0');
    std::ofstream(folder_.Path("weights/weight.bin"), std::ios::binary)
        << header << record << LittleEndian(0x3C003800, 4);
  }

  [[nodiscard]] package::Bundle bundle() const { return {folder_.Path("model.mil"), package::BundleForm::Compiled}; }

 private:
  ulmora::test::TemporaryFolder folder_;
};

void RequireOneLine(std::string_view text) {
  if (!text.empty() && text.find('\n') == std::string_view::npos) return;
  std::cerr << "not one line: " << text << '\n';
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const BundleFolder folder;
  const package::Bundle bundle = folder.bundle();
  // A bound that small inputs can reach.
  constexpr std::int64_t kMaxBytes = std::int64_t{1} << 24;
  package::ConstantReader constants(bundle, kMaxBytes);
  try {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    static_cast<void>(package::ReadTextProgram(text, "", constants));
  } catch (const Error& error) {
    RequireOneLine(error.what());
  }
  return 0;
}
