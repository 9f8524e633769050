#pragma once
// Where the files of a model are: the package on disk before anything in it has been understood.

#include <filesystem>
#include <string>

namespace ulmora::engine::package {

/// The files of one package.
struct Bundle {
  std::filesystem::path model;  ///< the serialized model message

  /// The file that a constant names, as "@model_path/weights/weight.bin": that prefix stands for the folder of the
  /// model file. If there is no such file, its last component is looked for in the folder "weights" there, since some
  /// tools keep no more of the name. Throws Error(Load) if the name leads outside that folder or no file is found.
  [[nodiscard]] std::filesystem::path WeightFile(const std::string& name) const;
};

/// Finds the model of the .mlpackage directory at `path` by its manifest. Throws Error(Open) if there is nothing at the
/// path, if it is something else than a package, or if the manifest or the model file is missing.
[[nodiscard]] Bundle OpenBundle(const std::filesystem::path& path);

}  // namespace ulmora::engine::package
