#pragma once
// Every failure of a job tells where the model package was looked for, whether or not the model had to do with it.

#include <exception>
#include <stdexcept>
#include <string>

namespace ulmora::diagnostics {

/// Calls `job` and returns what it returns. A std::exception out of it becomes a std::runtime_error whose text is the
/// old one, a line feed and the context: its type is dropped on purpose, so that all failures of a job are reported
/// alike. What is not a std::exception passes through.
template <typename Job>
auto WithModelContext(const std::string& context, Job job) -> decltype(job()) {
  try {
    return job();
  } catch (const std::exception& error) {
    throw std::runtime_error(std::string(error.what()) + "\n" + context);
  }
}

}  // namespace ulmora::diagnostics
