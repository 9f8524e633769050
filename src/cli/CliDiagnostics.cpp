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
  // Put together first and written at once: the unbuffered standard error makes a system call of every small piece, and
  // a line in pieces could be torn by another writer.
  std::ostringstream line;
  if (machineProgress) {
    line << "{\"schema\":";
    JsonString(line, Schema());
    line << ",\"severity\":";
    JsonString(line, level);
    line << ",\"code\":";
    JsonString(line, code);
    line << ",\"message\":";
    JsonString(line, text);
    line << "}\n";
  } else {
    line << (warning ? "Warning" : "Info") << " [" << Escape(code) << "]: " << Escape(text) << '\n';
  }
  *stream << line.str();
}

}  // namespace ulmora::cli
