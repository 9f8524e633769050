#pragma once
// The text that tells where a model package was looked for; it accompanies every failure of a run.

#include <string>
#include <vector>

namespace ulmora::diagnostics {

/// What stands at a UTF-8 path: "missing", "unavailable (<message>)", "directory (CoreML .mlpackage/.mlmodelc models
/// are directory bundles)", "regular file" or "other". Follows symbolic links and does not throw on a failed file
/// operation.
[[nodiscard]] std::string ModelPathKind(const std::string& path);

/// One line without a line feed: backend, expected form, source of the path, the path and its kind, and the candidates
/// in order if there are any.
[[nodiscard]] std::string ModelContext(const std::string& backend, const std::string& expected,
                                       const std::string& resolvedPath, const std::string& source,
                                       const std::vector<std::string>& candidates);

}  // namespace ulmora::diagnostics
