#pragma once
// The usage text of --help. The parser's own printer lists options backwards and destroys the layout of the message
// behind them, which is a contract with users; version text and failure reports stay the parser's.

#include <tclap/CmdLineInterface.h>
#include <tclap/StdOutput.h>

#include <ostream>
#include <string>

namespace ulmora::cli {

/// Prints: the brief usage, sorted; the parser's own three switches; the options in the order of their adding; the
/// message, line by line with its own indentation.
class CommandLineUsage : public TCLAP::StdOutput {
 public:
  void usage(TCLAP::CmdLineInterface& parser) override;

  /// The same to any stream.
  static void Print(TCLAP::CmdLineInterface& parser, std::ostream& out);
};

/// Writes one line behind `indent` blanks, broken at blanks so that no piece passes `width` columns; what was broken
/// off stands behind `indent + hanging` blanks. A word that is longer than a line is cut.
void PrintWrapped(std::ostream& out, const std::string& line, std::size_t width, std::size_t indent,
                  std::size_t hanging);

}  // namespace ulmora::cli
