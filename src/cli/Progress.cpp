#include "cli/Progress.h"

#include "cli/JsonString.h"

#include <iomanip>

namespace ulmora::cli {
namespace {

/// Everything of a line up to the first key that differs between events.
std::ostream& Begin(std::ostream& stream, const char* event, const char* stage) {
  stream << "{\"schema\":";
  JsonString(stream, ProgressSchema());
  return stream << ",\"event\":\"" << event << "\",\"stage\":\"" << stage << '"';
}

}  // namespace

const char* ProgressSchema() {
  return "quorvanthine.cli.progress.v1";
}

float ProgressPercent(int current, int total) {
  return 100.0F * static_cast<float>(current) / static_cast<float>(total);
}

void WriteProgressStart(std::ostream& stream, int total) {
  Begin(stream, "start", "inference") << ",\"current\":0,\"total\":" << total << ",\"percent\":0.0}" << std::endl;
}

void WriteProgress(std::ostream& stream, int current, int total) {
  Begin(stream, "progress", "inference") << ",\"current\":" << current << ",\"total\":" << total
                                         << ",\"percent\":" << std::fixed << std::setprecision(1)
                                         << ProgressPercent(current, total) << '}' << std::endl;
}

void WriteProgressFinish(std::ostream& stream, int total) {
  Begin(stream, "finish", "inference") << ",\"current\":" << total << ",\"total\":" << total
                                       << ",\"percent\":100.0,\"ok\":true}" << std::endl;
}

void WriteProgressError(std::ostream& stream, const std::string& message) {
  Begin(stream, "error", "processing") << ",\"ok\":false,\"message\":";
  JsonString(stream, message);
  stream << '}' << std::endl;
}

void WriteWorking(std::ostream& stream, int current, int total) {
  stream << "Working: " << std::fixed << std::setprecision(1) << ProgressPercent(current, total) << "%\r" << std::flush;
}

void WriteWorkingDone(std::ostream& stream) {
  // The blank belongs to the text: it covers the last character of "Working: 100.0%".
  stream << "Working: Done! " << std::endl << std::endl;
}

}  // namespace ulmora::cli
