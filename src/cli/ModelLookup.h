#pragma once
// Where the model package of a run is looked for, and the text that says so.

#include <filesystem>
#include <string>
#include <vector>

namespace ulmora::cli {

/// What the packaging of a tool looks like.
struct CliPackageLayout {
  std::string packageDirectory;             ///< of the portable archive, and under a system library directory
  std::string displayName;                  ///< for people
  std::string executable;                   ///< file name
  std::vector<std::string> weightPackages;  ///< file names of the model packages
  bool runtimeLibraries = false;            ///< the tool comes with libraries to be kept next to it
};

/// The inference backend as programs and as people call it.
[[nodiscard]] const char* BackendId();
[[nodiscard]] const char* BackendDisplayName();

/// The full path of the running executable as the platform gives it; empty if it cannot be told.
[[nodiscard]] std::string GetExecutablePath();

/// The directory of that path; "." if it is empty.
[[nodiscard]] std::string GetExecutableDirectory();

/// The five places of a package for an executable in `directory`, in order of preference. Entries may be equal; the
/// list is a promise to users about where is looked, not a plan of work.
[[nodiscard]] std::vector<std::string> WeightsCandidatesFrom(const std::filesystem::path& directory,
                                                             const std::string& executableName,
                                                             const std::string& packageName);

/// The same for the running executable.
[[nodiscard]] std::vector<std::string> DefaultWeightsCandidates(const std::string& executableName,
                                                                const std::string& packageName);

/// The first candidate that exists, as whatever kind of file; the first of all if none does. Never fails: a package
/// that is missing or wrong is found out when it is opened.
[[nodiscard]] std::string FirstExisting(const std::vector<std::string>& candidates);

/// FirstExisting of the default candidates.
[[nodiscard]] std::string ResolveDefaultWeights(const std::string& executableName, const std::string& packageName);

/// One line: executable, working directory, and the model context of the resolved path. With an explicit override the
/// list of candidates holds that path alone.
[[nodiscard]] std::string ModelLookupDiagnostic(const std::string& executableName, const std::string& packageName,
                                                const std::string& resolvedPath, bool explicitOverride,
                                                const std::string& backendName);

}  // namespace ulmora::cli
