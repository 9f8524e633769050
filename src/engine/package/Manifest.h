#pragma once
// Manifest.json of a package: which of its files is the model.

#include <filesystem>
#include <optional>
#include <string_view>

namespace ulmora::engine::package {

/// `text` as a path below some folder, or nothing if it is empty, absolute, has a ".." component or holds control
/// characters: a package may only name files of its own.
[[nodiscard]] std::optional<std::filesystem::path> RelativePath(std::string_view text);

/// The path of the root model relative to the package's Data folder, as the manifest file says. Items other than the
/// root model are ignored. Throws Error(Open), naming the file and the member, if the file cannot be read, is no JSON
/// object, is of a newer format than 1.0.0, lacks the root model, or names a path outside the package.
[[nodiscard]] std::filesystem::path ReadManifest(const std::filesystem::path& manifest);

}  // namespace ulmora::engine::package
