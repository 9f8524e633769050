#include "common/ModelContext.h"

#include <filesystem>
#include <system_error>

namespace ulmora::diagnostics {

std::string ModelPathKind(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::file_status status = fs::status(fs::path(std::u8string(path.begin(), path.end())), error);
  // A missing path sets an error as well, so it is recognized first.
  if (status.type() == fs::file_type::not_found) return "missing";
  if (error) return "unavailable (" + error.message() + ")";
  if (fs::is_directory(status)) return "directory (CoreML .mlpackage/.mlmodelc models are directory bundles)";
  if (fs::is_regular_file(status)) return "regular file";
  return "other";
}

std::string ModelContext(const std::string& backend, const std::string& expected, const std::string& resolvedPath,
                         const std::string& source, const std::vector<std::string>& candidates) {
  std::string text = "Model context: backend=" + backend + "; expected=" + expected + "; source=" + source +
                     "; resolved path='" + resolvedPath + "'; path kind=" + ModelPathKind(resolvedPath);
  if (candidates.empty()) return text;
  text += "; lookup candidates (in order):";
  for (const std::string& candidate : candidates) text += " '" + candidate + "'";
  return text;
}

}  // namespace ulmora::diagnostics
