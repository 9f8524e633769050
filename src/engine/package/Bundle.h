#pragma once
// Where the files of a model are: the bundle on disk before anything in it has been understood.

#include <cstdint>
#include <filesystem>
#include <string>

namespace ulmora::engine::package {

enum class BundleForm : std::uint8_t {
  Package,     ///< .mlpackage: manifest, model message, weight file
  Compiled,    ///< .mlmodelc: textual program, weight file, description
  SingleFile,  ///< .mlmodel: model message
};

/// The files of one bundle.
struct Bundle {
  std::filesystem::path model;  ///< the serialized model message, or the textual program
  BundleForm form = BundleForm::Package;

  /// The file that a constant names, as "@model_path/weights/weight.bin": that prefix stands for the folder of the
  /// model file. If there is no such file, its last component is looked for in the folder "weights" there, since some
  /// tools keep no more of the name. Throws Error(Load) if the name leads outside that folder or no file is found.
  [[nodiscard]] std::filesystem::path WeightFile(const std::string& name) const;
};

/// True if the path names a compiled bundle: it ends in ".mlmodelc", exactly so written; slashes behind that do not
/// count.
[[nodiscard]] bool HasCompiledEnding(const std::filesystem::path& path);

/// Finds the model of the bundle at `path`: the textual program if the path has the ending of compiled bundles, a
/// .mlmodel file itself, else what the manifest of a package says. Throws Error(Open) if there is nothing at the path,
/// or if it is something else than its ending promises, saying what it is.
[[nodiscard]] Bundle OpenBundle(const std::filesystem::path& path);

}  // namespace ulmora::engine::package
