#pragma once
// The product information for front ends: one JSON document that tells what the tool is, takes, gives and prints. It is
// a declaration of the contract, written out line by line, and not made from live data; tests hold it against the code.

#include <ostream>
#include <string>

namespace ulmora::cli {

/// From the opening brace to the end of the backend, without a line feed behind it.
void WriteCommonHeader(std::ostream& out, const std::string& product, const std::string& displayName,
                       const std::string& executable);

/// The key "io" and all below it, each line behind `indent`, without a line feed at the end. `hasStarLayerOutputs` is
/// for a tool that writes star layers; this one passes false.
void WriteIo(std::ostream& out, const char* indent, bool hasStarLayerOutputs);

/// The whole document of this program on standard output.
void WriteLumvaneMachineInfo(const std::string& v1Package, const std::string& v2Package);

}  // namespace ulmora::cli
