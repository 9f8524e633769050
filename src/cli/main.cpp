// The driver: decides what a run is, validates what only it can validate, runs one job, and turns every failure into
// one message and one exit status.

#include "cli/CliDiagnostics.h"
#include "cli/CommandLine.h"
#include "cli/HelpText.h"
#include "cli/LumvaneModel.h"
#include "cli/MachineInfo.h"
#include "cli/ModelLookup.h"
#include "cli/Product.h"
#include "cli/Progress.h"
#include "cli/QuietStandardError.h"
#include "cli/UpdateCheck.h"
#include "cli/WithModelContext.h"

#include <tclap/ArgException.h>

#include <csignal>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using namespace ulmora::cli;

/// Side of a tile in pixels; neither an option nor a property of the model.
constexpr int kWindowSize = 512;

/// The parent process sees 255.
constexpr int kFailure = -1;

/// A reader that has gone and a file at its limit are failed writes like any other, not the end of the run: it would
/// leave a stub in the place of an older output.
void TakeFailedWritesAsErrors() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

/// The text behind the options in the help text.
std::string HelpMessage() {
  return std::string("\n Lumvane CLI, CoreML backend.") +
         "\n CoreML acceleration is available on supported macOS systems." +
         HelpContract(kPackageV1, kPackageV2, true) + "\n\n Lumvane v" + kVersion +
         "\n\n Published by the Lumvane developers.";
}

std::string ResolveDefaultWeights(const std::string& packageName) {
  return ulmora::cli::ResolveDefaultWeights(kExecutableName, packageName);
}

int Fail(const std::string& text, bool machineMode) {
  if (machineMode) {
    WriteProgressError(std::cerr, text);
  } else {
    std::cerr << text << std::endl;
  }
  return kFailure;
}

void RunJob(const JobArguments& arguments, const std::string& weightsPath) {
  LumvaneModel model(arguments.inputPath, arguments.outputPath, arguments.modelVersion, arguments.stride, kWindowSize,
                     weightsPath, arguments.quiet, arguments.machineProgress, arguments.linear);
  model.ConfigureLinearMtf(arguments.linear, arguments.shadowsClipping, arguments.targetBackground, false);
  model.Process();
}

/// A run that got as far as a valid command line.
void Denoise(const JobArguments& arguments) {
  const std::string package = arguments.modelVersion == 1 ? kPackageV1 : kPackageV2;
  const bool explicitOverride = !arguments.weightsPath.empty();
  const std::string weightsPath = explicitOverride ? arguments.weightsPath : ResolveDefaultWeights(package);
  const std::string lookup =
      ModelLookupDiagnostic(kExecutableName, package, weightsPath, explicitOverride, BackendDisplayName());
  CliDiagnostics{arguments.quiet, arguments.machineProgress, &std::cerr}.Info("model_context", lookup);
  ulmora::diagnostics::WithModelContext(lookup, [&] { RunJob(arguments, weightsPath); });
}

/// All of a run that the handlers of main watch over. `machineMode` is what the raw arguments say, which differs from
/// the parsed switch when the word stands in the place of a value or behind "--".
void Run(int argc, char** argv, bool machineMode) {
  CommandLine commandLine(HelpMessage(), kVersion, !machineMode);
  if (argc <= 1) {
    PrintNoArgsUsage();
    return;
  }
  const JobArguments arguments = commandLine.Parse(argc, argv);
  ValidateArguments(arguments);
  Denoise(arguments);
}

}  // namespace

int main(int argc, char** argv) {
  OccupyStandardDescriptors();
  TakeFailedWritesAsErrors();
  const bool machineMode = HasArg(argc, argv, "--machine-progress");
  // These two are answered whatever else is asked, so that a front end learns what it needs without a valid command.
  if (HasArg(argc, argv, "--machine-info")) {
    WriteLumvaneMachineInfo(kPackageV1, kPackageV2);
    return 0;
  }
  if (HasArg(argc, argv, "--check-updates")) {
    return RunUpdateCheck(kExecutableName, kDisplayName, kVersion, kBuildNumber, std::cout);
  }
  try {
    Run(argc, argv, machineMode);
    return 0;
  } catch (const std::invalid_argument& error) {
    return Fail(error.what(), machineMode);
  } catch (TCLAP::ArgException& error) {
    return Fail("Error: " + error.error() + " for arg " + error.argId(), machineMode);
  } catch (TCLAP::ExitException& exit) {
    return exit.getExitStatus();
  } catch (const std::exception& error) {
    return Fail(error.what(), machineMode);
  } catch (...) {
    return Fail("Failed", machineMode);
  }
}
