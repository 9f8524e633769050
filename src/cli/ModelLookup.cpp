#include "cli/ModelLookup.h"

#include "common/ModelContext.h"

#ifdef __APPLE__
#include <mach-o/dyld.h>
#else
#include <unistd.h>
#endif

#include <cstdint>
#include <system_error>

namespace ulmora::cli {

const char* BackendId() {
  return "coreml";
}

const char* BackendDisplayName() {
  return "CoreML";
}

#ifdef __APPLE__
std::string GetExecutablePath() {
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::string path(size, '\0');
  if (_NSGetExecutablePath(path.data(), &size) != 0) return {};
  return path.c_str();
}
#else
std::string GetExecutablePath() {
  // readlink does not tell how long a link is, only that it filled the buffer.
  for (std::size_t size = 256; size <= (1U << 20); size *= 2) {
    std::string path(size, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length < 0) return {};
    if (static_cast<std::size_t>(length) < path.size()) return path.substr(0, static_cast<std::size_t>(length));
  }
  return {};
}
#endif

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
