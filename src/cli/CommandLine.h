#pragma once
// The command line of the program: its option table and what the driver itself validates of a job's arguments.

#include "cli/CommandLineUsage.h"

#include <tclap/CmdLine.h>

#include <string>

namespace ulmora::cli {

/// Whether one of the arguments after the first equals the flag. Knows nothing of options and their values, so the
/// value of another option counts. Null entries are skipped.
[[nodiscard]] bool HasArg(int argc, const char* const* argv, const std::string& flag);

/// What the command line says of one denoising job.
struct JobArguments {
  std::string inputPath;
  std::string outputPath;
  std::string weightsPath;  ///< empty: look for the default package
  int stride = 0;           ///< pixels
  int modelVersion = 0;
  double shadowsClipping = 0.0;   ///< in normalized MAD units
  double targetBackground = 0.0;  ///< normalized
  bool linear = false;
  bool linearParametersSet = false;  ///< one of the two was given, be it with its default value
  bool quiet = false;
  bool machineProgress = false;
};

/// The option parser with the whole option table.
class CommandLine {
 public:
  /// `message` stands behind the options in the help text. With `reportsItself` the parser prints help, version and
  /// parse failures and exits the process; otherwise TCLAP::ArgException and TCLAP::ExitException leave Parse.
  CommandLine(const std::string& message, const std::string& version, bool reportsItself);

  [[nodiscard]] JobArguments Parse(int argc, const char* const* argv);

 private:
  CommandLineUsage usage_;
  // In the order of the option table, in which the usage text lists them.
  TCLAP::CmdLine parser_;
  TCLAP::ValueArg<std::string> input_;
  TCLAP::ValueArg<std::string> output_;
  TCLAP::ValueArg<std::string> weights_;
  TCLAP::ValueArg<int> stride_;
  TCLAP::ValueArg<int> model_;
  TCLAP::ValueArg<double> shadowsClipping_;
  TCLAP::ValueArg<double> targetBackground_;
  TCLAP::SwitchArg linear_;
  TCLAP::SwitchArg quiet_;
  TCLAP::SwitchArg machineInfo_;
  TCLAP::SwitchArg checkUpdates_;
  TCLAP::SwitchArg machineProgress_;
};

/// std::invalid_argument for parameters of the linear mode without it, then for a model version other than 1 and 2.
/// All else is checked where it is used.
void ValidateArguments(const JobArguments& arguments);

}  // namespace ulmora::cli
