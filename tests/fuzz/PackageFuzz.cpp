// Feeds any bytes as the files of a model package: it is refused by the engine's one exception, with one line of text,
// or it opens. make_package_corpus.py makes seeds from the committed packages.
//
// Input: u32 little-endian length of the model message, the message, and the weight file to the end. A length of
// 0xFFFFFFFF makes the rest the manifest of an otherwise good package, 0xFFFFFFFE a single-file model.

#include "engine/Error.h"
#include "engine/package/ReadModel.h"
#include "engine/program/import/MilImport.h"
#include "engine/program/import/NeuralNetworkImport.h"
#include "tests/support/TemporaryFolder.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string_view>

namespace {

namespace fs = std::filesystem;
using ulmora::engine::Error;

constexpr std::uint32_t kManifestOnly = 0xFFFFFFFF;
constexpr std::uint32_t kSingleFile = 0xFFFFFFFE;
constexpr std::string_view kManifest =
    R"({"fileFormatVersion": "1.0.0", "rootModelIdentifier": "M", "itemInfoEntries": {"M": {"path": "m/model"}}})";

void Write(const fs::path& file, std::string_view bytes) {
  std::ofstream stream(file, std::ios::binary | std::ios::trunc);
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// One package for the whole run, written over and over.
class Package {
 public:
  Package() { fs::create_directories(Model().parent_path() / "weights"); }

  void Set(std::string_view manifest, std::string_view message, std::string_view weights) const {
    Write(path() / "Manifest.json", manifest);
    Write(Model(), message);
    Write(Model().parent_path() / "weights" / "weight.bin", weights);
  }

  void SetFile(std::string_view message) const { Write(file(), message); }

  [[nodiscard]] fs::path path() const { return folder_.Path("fuzz.mlpackage"); }
  [[nodiscard]] fs::path file() const { return folder_.Path("fuzz.mlmodel"); }

 private:
  [[nodiscard]] fs::path Model() const { return path() / "Data" / "m" / "model"; }

  ulmora::test::TemporaryFolder folder_;
};

/// Writes the files and returns the path that is to be opened.
fs::path SetFiles(const Package& package, std::string_view input) {
  std::uint32_t length = 0;
  for (std::size_t i = 0; i < 4; ++i)
    length |= static_cast<std::uint32_t>(static_cast<unsigned char>(input[i])) << (8 * i);
  input.remove_prefix(4);
  if (length == kSingleFile) {
    package.SetFile(input);
    return package.file();
  }
  if (length == kManifestOnly) {
    package.Set(input, "", "");
  } else {
    const std::string_view message = input.substr(0, std::min<std::size_t>(length, input.size()));
    package.Set(kManifest, message, input.substr(message.size()));
  }
  return package.path();
}

void Import(const ulmora::engine::package::ModelSource& source) {
  if (source.network) {
    static_cast<void>(ulmora::engine::program::ImportNeuralNetwork(source));
  } else {
    static_cast<void>(ulmora::engine::program::ImportMil(source));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 4) return 0;
  static const Package package;
  const fs::path model = SetFiles(package, {reinterpret_cast<const char*>(data), size});
  try {
    Import(ulmora::engine::package::ReadModel(model));
  } catch (const Error& error) {
    const std::string_view text = error.what();
    if (text.empty() || text.find('\n') != std::string_view::npos) {
      std::cerr << "not one line: " << text << '\n';
      std::abort();
    }
  }
  return 0;
}
