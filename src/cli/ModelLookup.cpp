#include "cli/ModelLookup.h"

#include "common/ModelContext.h"

#include <system_error>

namespace ulmora::cli {

const char* BackendId() {
  return "coreml";
}

const char* BackendDisplayName() {
  return "CoreML";
}

std::string GetExecutableDirectory() {
  const std::string path = GetExecutablePath();
  return path.empty() ? "." : std::filesystem::path(path).parent_path().string();
}

std::vector<std::string> WeightsCandidatesFrom(const std::filesystem::path& directory,
                                               const std::string& executableName, const std::string& packageName) {
  const std::filesystem::path local = "/usr/local/lib";
  const std::filesystem::path system = "/usr/lib";
  return {(directory / packageName).string(), (directory / "lib" / executableName / packageName).string(),
          (directory.parent_path() / "lib" / executableName / packageName).string(),
          (local / executableName / packageName).string(), (system / executableName / packageName).string()};
}

std::vector<std::string> DefaultWeightsCandidates(const std::string& executableName, const std::string& packageName) {
  return WeightsCandidatesFrom(GetExecutableDirectory(), executableName, packageName);
}

std::string FirstExisting(const std::vector<std::string>& candidates) {
  for (const std::string& candidate : candidates) {
    std::error_code error;
    if (std::filesystem::exists(candidate, error) && !error) return candidate;
  }
  return candidates.front();
}

std::string ResolveDefaultWeights(const std::string& executableName, const std::string& packageName) {
  return FirstExisting(DefaultWeightsCandidates(executableName, packageName));
}

std::string ModelLookupDiagnostic(const std::string& executableName, const std::string& packageName,
                                  const std::string& resolvedPath, bool explicitOverride,
                                  const std::string& backendName) {
  std::error_code error;
  const std::filesystem::path working = std::filesystem::current_path(error);
  const std::string source = explicitOverride ? "explicit --weights override" : "automatic lookup";
  const std::vector<std::string> candidates =
      explicitOverride ? std::vector<std::string>{resolvedPath} : DefaultWeightsCandidates(executableName, packageName);
  return "Executable='" + GetExecutablePath() + "'; working directory='" +
         (error ? std::string("unavailable") : working.string()) + "'; " +
         diagnostics::ModelContext(backendName, packageName, resolvedPath, source, candidates);
}

}  // namespace ulmora::cli
