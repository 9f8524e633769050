#include "cli/CommandLine.h"

#include <stdexcept>

namespace ulmora::cli {

bool HasArg(int argc, const char* const* argv, const std::string& flag) {
  for (int i = 1; i < argc; ++i) {
    if (argv[i] != nullptr && flag == argv[i]) return true;
  }
  return false;
}

CommandLine::CommandLine(const std::string& message, const std::string& version, bool reportsItself)
    : parser_(message, ' ', version, true),
      input_("i", "input", "Input image filename. Recommended: TIFF/TIF, PNG, or supported FITS.", true, "", "string",
             parser_),
      output_("o", "output", "Output image filename. See Outputs below for sample-type policy.", false, "denoised.jpg",
              "string", parser_),
      weights_("w", "weights", "Override path to the model checkpoint (optional)", false, "", "string", parser_),
      stride_("s", "stride", "Stride value. Must be even and between 2 and 512.", false, 480, "int", parser_),
      model_("m", "model", "Model version to use, 1 or 2. Default is 2. Model 1 requires RGB input.", false, 2, "int",
             parser_),
      shadowsClipping_("", "shadows-clipping",
                       "Linear MTF shadows-clipping factor in normalized MAD units. Must be negative.", false, -2.8,
                       "number", parser_),
      targetBackground_("", "target-background", "Linear MTF target background. Must be strictly between 0 and 1.",
                        false, 0.25, "number", parser_),
      linear_("", "linear",
              "Brighten linear images with per-channel MTF (midtones transfer function) for neural processing, then "
              "reverse the stretch. Fixed sample-format scaling only; values above 1 are clipped with a warning.",
              parser_),
      quiet_("q", "quiet", "Suppress routine output (warnings and errors remain visible)", parser_),
      machineInfo_("", "machine-info", "Print machine-readable product information as JSON and exit.", parser_),
      checkUpdates_("", "check-updates", "Check the latest Lumvane CLI version and exit.", parser_),
      machineProgress_("", "machine-progress", "Print machine-readable progress events as JSON Lines.", parser_) {
  parser_.setOutput(&usage_);
  if (!reportsItself) parser_.setExceptionHandling(false);
}

JobArguments CommandLine::Parse(int argc, const char* const* argv) {
  parser_.parse(argc, argv);
  JobArguments arguments;
  arguments.inputPath = input_.getValue();
  arguments.outputPath = output_.getValue();
  arguments.weightsPath = weights_.getValue();
  arguments.stride = stride_.getValue();
  arguments.modelVersion = model_.getValue();
  arguments.shadowsClipping = shadowsClipping_.getValue();
  arguments.targetBackground = targetBackground_.getValue();
  arguments.linear = linear_.getValue();
  arguments.linearParametersSet = shadowsClipping_.isSet() || targetBackground_.isSet();
  arguments.quiet = quiet_.getValue();
  arguments.machineProgress = machineProgress_.getValue();
  return arguments;
}

void ValidateArguments(const JobArguments& arguments) {
  if (!arguments.linear && arguments.linearParametersSet) {
    throw std::invalid_argument("--shadows-clipping and --target-background require --linear.");
  }
  if (arguments.modelVersion != 1 && arguments.modelVersion != 2) {
    throw std::invalid_argument("Model version should be 1 or 2!");
  }
}

}  // namespace ulmora::cli
