#pragma once
// The help text behind the option list: which inputs are accepted, what the output will be, what each model can do and
// how the files must lie on disk. Kept line for line: it is a contract with users.

#include "cli/ModelLookup.h"

#include <string>

namespace ulmora::cli {

/// What goes in. `hasStarLayerOutputs` is for a tool that writes star layers; this one passes false.
[[nodiscard]] std::string CommonInputHelp(bool hasStarLayerOutputs);

/// What comes out; the boolean as above.
[[nodiscard]] std::string CommonOutputHelp(bool hasStarLayerOutputs);

/// How program and packages lie in an archive and in an installation.
[[nodiscard]] std::string PackageLayoutHelp(const CliPackageLayout& layout);

/// The whole text of this program. `runtimeLibraries`: the program comes with libraries to be kept next to it.
[[nodiscard]] std::string HelpContract(const std::string& v1Package, const std::string& v2Package,
                                       bool runtimeLibraries);

/// Three lines on standard output, for a call without arguments.
void PrintNoArgsUsage();

}  // namespace ulmora::cli
