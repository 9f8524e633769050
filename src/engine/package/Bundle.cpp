#include "engine/package/Bundle.h"

#include "engine/package/Manifest.h"
#include "engine/package/Text.h"

#include <optional>
#include <string>
#include <system_error>

namespace ulmora::engine::package {
namespace {

namespace fs = std::filesystem;

bool Exists(const fs::path& path) {
  std::error_code ignored;
  return fs::exists(path, ignored);
}

constexpr const char* kProgramText = "model.mil";

[[noreturn]] void Fail(const fs::path& path, const std::string& message) {
  throw Error(Stage::Open, Quoted(path.string()) + " " + message);
}

/// What a compiled bundle without a program is.
std::string OtherCompiledForm(const fs::path& path) {
  constexpr const char* kExpected = ", expected a compiled ML program (model.mil)";
  if (Exists(path / "model.espresso.net"))
    return std::string("is a compiled neural network (model.espresso.net)") + kExpected;
  if (Exists(path / "model0")) return std::string("is a compiled pipeline (model0, ...)") + kExpected;
  if (Exists(path / "Manifest.json"))
    return "is a package under the name of a compiled model, expected the ending .mlpackage";
  if (Exists(path / "coremldata.bin")) return std::string("is a compiled model of another kind") + kExpected;
  return "holds no model.mil, expected a compiled ML program";
}

Bundle OpenCompiled(const fs::path& path) {
  const fs::path program = path / kProgramText;
  if (!Exists(program)) Fail(path, OtherCompiledForm(path));
  return {program, BundleForm::Compiled};
}

Bundle OpenPackage(const fs::path& path) {
  const fs::path manifest = path / "Manifest.json";
  if (Exists(manifest)) return {path / "Data" / ReadManifest(manifest), BundleForm::Package};
  if (Exists(path / kProgramText) || Exists(path / "coremldata.bin")) {
    Fail(path, "is a compiled model, expected the ending .mlmodelc");
  }
  Fail(path, "holds no Manifest.json, expected a package (.mlpackage)");
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

bool HasCompiledEnding(const fs::path& path) {
  return (path.has_filename() ? path : path.parent_path()).extension() == ".mlmodelc";
}

Bundle OpenBundle(const fs::path& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (status.type() == fs::file_type::not_found) {
    throw Error(Stage::Open, "there is no file or directory " + Quoted(path.string()));
  }
  if (error) throw Error(Stage::Open, "cannot examine " + Quoted(path.string()) + ": " + error.message());
  if (fs::is_directory(status)) return HasCompiledEnding(path) ? OpenCompiled(path) : OpenPackage(path);
  // A single file is the model message itself, with all that belongs to it inside.
  if (path.extension() == ".mlmodel") return {path, BundleForm::SingleFile};
  Fail(path,
       "is not a directory, expected a package (.mlpackage), a compiled model (.mlmodelc) or a single file (.mlmodel)");
}

}  // namespace ulmora::engine::package
