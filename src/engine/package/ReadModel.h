#pragma once
// Reads a package from disk into plain structs.

#include "engine/package/ModelSource.h"

#include <filesystem>

namespace ulmora::engine::package {

/// Reads the bundle at `path`: manifest, model message, weight file, or the textual program of a compiled bundle with
/// its description and weight file. Everything that comes from a file is checked
/// before use. Throws Error(Open) for an unreadable or malformed bundle or message, Error(Translate) for a model of a
/// kind that is neither an ML program nor a neural network, Error(Load) for constants that cannot be loaded from the
/// weight file. Messages name the file.
[[nodiscard]] ModelSource ReadModel(const std::filesystem::path& path);

}  // namespace ulmora::engine::package
