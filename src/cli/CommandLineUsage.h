#pragma once
// The usage text, whole for --help and brief behind a parse failure. The parser's own printer lists options backwards
// and destroys the layout of the message behind them, which is a contract with users; all other words stay the
// parser's.

#include <tclap/ArgException.h>
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

  /// Reports a parse failure with the brief usage on standard error. Throws TCLAP::ExitException with status 1.
  [[noreturn]] void failure(TCLAP::CmdLineInterface& parser, TCLAP::ArgException& error) override;

  /// The same to any stream.
  static void Print(TCLAP::CmdLineInterface& parser, std::ostream& out);
};

/// Writes one line behind `indent` blanks, broken at blanks so that no piece passes `width` columns; what was broken
/// off stands behind `indent + hanging` blanks. A word that is longer than a line is cut.
void PrintWrapped(std::ostream& out, const std::string& line, std::size_t width, std::size_t indent,
                  std::size_t hanging);

}  // namespace ulmora::cli
