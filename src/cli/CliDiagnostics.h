#pragma once
// One-line diagnostics on standard error: for people, or as JSON Lines for a front end that started the program.

#include <ostream>
#include <string>

namespace ulmora::cli {

/// The stable codes of warnings.
enum class CliWarning {
  DataLoss = 0,           ///< samples were clipped or discarded
  OutputFidelity = 1,     ///< the output keeps less than the input held
  ExecutionFallback = 2,  ///< the run continued on a fallback path
};

/// A small value, made afresh wherever it is needed. The stream is not owned and outlives it. There is no explicit
/// flush: the lines count on the unbuffered standard error.
struct CliDiagnostics {
  bool quiet = false;            ///< drop everything of severity info
  bool machineProgress = false;  ///< JSON Lines instead of lines for people
  std::ostream* stream = nullptr;

  /// The schema identifier of a JSON diagnostic line.
  static const char* Schema();

  /// JSON escaping without the outer quotes. Lines for people are escaped as well, so that one diagnostic is one line.
  static std::string Escape(const std::string& text);

  /// Writes a routine line under the given tag, unless quiet is set.
  void Info(const std::string& tag, const std::string& text) const;

  /// Writes a warning, quiet or not: what can lose data is always said.
  void Warn(CliWarning code, const std::string& text) const;

  /// Writes one line of the given severity ("info" or "warning"). A leading "Warning: " of a warning's message is
  /// dropped, so that a text which a lower layer worded with its own prefix does not say it twice.
  void Write(const char* severity, const std::string& code, const std::string& message) const;
};

}  // namespace ulmora::cli
