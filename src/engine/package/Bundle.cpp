#include "engine/package/Bundle.h"

#include "engine/package/Manifest.h"
#include "engine/package/Text.h"

#include <optional>
#include <system_error>

namespace ulmora::engine::package {
namespace {

namespace fs = std::filesystem;

bool Exists(const fs::path& path) {
  std::error_code ignored;
  return fs::exists(path, ignored);
}

/// What is at `path`, in words, if it is a form of model that is known but cannot be opened.
std::optional<std::string> OtherForm(const fs::path& path, bool isDirectory) {
  if (!isDirectory && path.extension() == ".mlmodel") return "a single-file model (.mlmodel)";
  if (isDirectory && (Exists(path / "model.mil") || Exists(path / "coremldata.bin")))
    return "a compiled model (.mlmodelc)";
  return std::nullopt;
}

}  // namespace

fs::path Bundle::WeightFile(const std::string& name) const {
  constexpr std::string_view kPrefix = "@model_path/";
  const std::string_view rest =
      name.starts_with(kPrefix) ? std::string_view(name).substr(kPrefix.size()) : std::string_view(name);
  const std::optional<fs::path> relative = RelativePath(rest);
  if (!relative) throw Error(Stage::Load, "weight file " + Quoted(name) + " does not lie within the package");
  const fs::path folder = model.parent_path();
  for (const fs::path& candidate : {folder / *relative, folder / "weights" / relative->filename()}) {
    if (Exists(candidate)) return candidate;
  }
  throw Error(Stage::Load,
              "weight file " + Quoted(name) + " is missing, expected " + Quoted((folder / *relative).string()));
}

Bundle OpenBundle(const fs::path& path) {
  const std::string name = Quoted(path.string());
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (status.type() == fs::file_type::not_found) throw Error(Stage::Open, "there is no file or directory " + name);
  if (error) throw Error(Stage::Open, "cannot examine " + name + ": " + error.message());
  const bool isDirectory = fs::is_directory(status);
  if (const auto form = OtherForm(path, isDirectory)) {
    throw Error(Stage::Open, name + " is " + *form + ", expected a package (.mlpackage)");
  }
  if (!isDirectory) throw Error(Stage::Open, name + " is not a directory, expected a package (.mlpackage)");
  const fs::path manifest = path / "Manifest.json";
  if (!Exists(manifest)) {
    throw Error(Stage::Open, name + " holds no Manifest.json, expected a package (.mlpackage)");
  }
  return {path / "Data" / ReadManifest(manifest)};
}

}  // namespace ulmora::engine::package
