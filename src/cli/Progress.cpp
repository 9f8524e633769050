#include "cli/Progress.h"

#include "cli/JsonString.h"

#include <iomanip>
#include <sstream>

namespace ulmora::cli {
namespace {

/// One event, put together first and written at once, since the unbuffered standard error makes a system call of every
/// small piece. Begins with all up to the first key that differs between events.
class EventLine {
 public:
  EventLine(const char* event, const char* stage) {
    line_ << "{\"schema\":";
    JsonString(line_, ProgressSchema());
    line_ << ",\"event\":\"" << event << "\",\"stage\":\"" << stage << '"' << std::fixed << std::setprecision(1);
  }

  std::ostream& Rest() { return line_; }

  void WriteTo(std::ostream& stream) {
    line_ << "}\n";
    stream << line_.str() << std::flush;
  }

 private:
  std::ostringstream line_;
};

}  // namespace

const char* ProgressSchema() {
  return "quorvanthine.cli.progress.v1";
}

float ProgressPercent(int current, int total) {
  return 100.0F * static_cast<float>(current) / static_cast<float>(total);
}

void WriteProgressStart(std::ostream& stream, int total) {
  EventLine line("start", "inference");
  line.Rest() << ",\"current\":0,\"total\":" << total << ",\"percent\":0.0";
  line.WriteTo(stream);
}

void WriteProgress(std::ostream& stream, int current, int total) {
  EventLine line("progress", "inference");
  line.Rest() << ",\"current\":" << current << ",\"total\":" << total
              << ",\"percent\":" << ProgressPercent(current, total);
  line.WriteTo(stream);
}

void WriteProgressFinish(std::ostream& stream, int total) {
  EventLine line("finish", "inference");
  line.Rest() << ",\"current\":" << total << ",\"total\":" << total << ",\"percent\":100.0,\"ok\":true";
  line.WriteTo(stream);
}

void WriteProgressError(std::ostream& stream, const std::string& message) {
  EventLine line("error", "processing");
  line.Rest() << ",\"ok\":false,\"message\":";
  JsonString(line.Rest(), message);
  line.WriteTo(stream);
}

void WriteWorking(std::ostream& stream, int current, int total) {
  stream << "Working: " << std::fixed << std::setprecision(1) << ProgressPercent(current, total) << "%\r" << std::flush;
}

void WriteWorkingDone(std::ostream& stream) {
  // The blank belongs to the text: it covers the last character of "Working: 100.0%".
  stream << "Working: Done! " << std::endl << std::endl;
}

}  // namespace ulmora::cli
