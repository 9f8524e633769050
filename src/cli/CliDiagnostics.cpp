#include "cli/CliDiagnostics.h"

#include "cli/JsonString.h"

#include <sstream>

namespace ulmora::cli {
namespace {

const char* WarningCode(CliWarning code) {
  if (code == CliWarning::DataLoss) return "data_loss";
  if (code == CliWarning::OutputFidelity) return "output_fidelity";
  return "execution_fallback";
}

}  // namespace

const char* CliDiagnostics::Schema() {
  return "quorvanthine.cli.diagnostic.v1";
}

std::string CliDiagnostics::Escape(const std::string& text) {
  std::ostringstream stream;
  JsonString(stream, text);
  const std::string quoted = stream.str();
  return quoted.substr(1, quoted.size() - 2);
}

void CliDiagnostics::Info(const std::string& tag, const std::string& text) const {
  if (!quiet) Write("info", tag, text);
}

void CliDiagnostics::Warn(CliWarning code, const std::string& text) const {
  Write("warning", WarningCode(code), text);
}

void CliDiagnostics::Write(const char* severity, const std::string& code, const std::string& message) const {
  static const std::string prefix = "Warning: ";
  const std::string level = severity;
  const bool warning = level == "warning";
  const std::string text = warning && message.starts_with(prefix) ? message.substr(prefix.size()) : message;
  if (!machineProgress) {
    *stream << (warning ? "Warning" : "Info") << " [" << Escape(code) << "]: " << Escape(text) << '\n';
    return;
  }
  *stream << "{\"schema\":";
  JsonString(*stream, Schema());
  *stream << ",\"severity\":";
  JsonString(*stream, level);
  *stream << ",\"code\":";
  JsonString(*stream, code);
  *stream << ",\"message\":";
  JsonString(*stream, text);
  *stream << "}\n";
}

}  // namespace ulmora::cli
