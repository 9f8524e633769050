#include "cli/CommandLineUsage.h"

#include "cli/Product.h"

#include <tclap/Arg.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <list>
#include <sstream>
#include <string_view>
#include <vector>

namespace ulmora::cli {
namespace {

constexpr std::size_t kWidth = 75;
constexpr std::size_t kIndent = 3;
constexpr std::size_t kDescriptionIndent = 5;

/// The switches that the parser adds itself, in the order in which they are listed.
const std::array<std::string, 3> kParserSwitches = {"help", "version", TCLAP::Arg::ignoreNameString()};

std::vector<TCLAP::Arg*> ListedOptions(TCLAP::CmdLineInterface& parser) {
  const std::list<TCLAP::Arg*>& added = parser.getArgList();
  std::vector<TCLAP::Arg*> options(added.begin(), added.end());
  // Some versions of the parser keep the last one added in front.
  if (!options.empty() && options.front()->getName() != kParserSwitches.front()) {
    std::reverse(options.begin(), options.end());
  }
  std::stable_sort(options.begin(), options.end(), [](const TCLAP::Arg* a, const TCLAP::Arg* b) {
    const auto rank = [](const TCLAP::Arg* option) {
      return std::find(kParserSwitches.begin(), kParserSwitches.end(), option->getName()) - kParserSwitches.begin();
    };
    return rank(a) < rank(b);
  });
  return options;
}

/// "[-hq] [--check-updates] ... -i <string>": short switches together, then what may be left out, then what may not.
std::string BriefUsage(const std::vector<TCLAP::Arg*>& options) {
  std::string letters;
  std::vector<std::string> optional;
  std::vector<std::string> required;
  for (const TCLAP::Arg* option : options) {
    if (option->getName() == TCLAP::Arg::ignoreNameString()) continue;
    if (!option->isValueRequired() && !option->getFlag().empty()) {
      letters += option->getFlag();
    } else {
      (option->isRequired() ? required : optional).push_back(option->shortID());
    }
  }
  std::sort(letters.begin(), letters.end());
  std::sort(optional.begin(), optional.end());
  std::sort(required.begin(), required.end());
  std::string text = std::string(kExecutableName) + "  [-" + letters + ']';
  for (const std::string& id : optional) text += ' ' + id;
  for (const std::string& id : required) text += ' ' + id;
  return text;
}

void PrintBriefUsage(std::ostream& out, const std::vector<TCLAP::Arg*>& options) {
  PrintWrapped(out, BriefUsage(options), kWidth, kIndent, std::string_view(kExecutableName).size() + 2);
}

void PrintMessage(std::ostream& out, const std::string& message) {
  std::istringstream lines(message);
  for (std::string line; std::getline(lines, line);) PrintWrapped(out, line, kWidth, kIndent, 0);
}

}  // namespace

void PrintWrapped(std::ostream& out, const std::string& line, std::size_t width, std::size_t indent,
                  std::size_t hanging) {
  std::string_view rest = line;
  while (indent + rest.size() > width) {
    const std::size_t room = width - indent;
    const std::size_t text = rest.find_first_not_of(' ');
    std::size_t end = rest.rfind(' ', room);
    // A blank of the line's own indentation is no place to break.
    if (end == std::string_view::npos || end < text) end = room;
    out << std::string(indent, ' ') << rest.substr(0, end) << '\n';
    rest.remove_prefix(end);
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    indent += hanging;
    hanging = 0;
    if (rest.empty()) return;
  }
  // An empty line carries no blanks.
  out << (rest.empty() ? std::string() : std::string(indent, ' ')) << rest << '\n';
}

void CommandLineUsage::usage(TCLAP::CmdLineInterface& parser) {
  Print(parser, std::cout);
}

void CommandLineUsage::failure(TCLAP::CmdLineInterface& parser, TCLAP::ArgException& error) {
  std::cerr << "PARSE ERROR: " << error.argId() << "\n             " << error.error() << "\n\nBrief USAGE: \n";
  PrintBriefUsage(std::cerr, ListedOptions(parser));
  std::cerr << "\nFor complete USAGE and HELP type: \n   " << parser.getProgramName() << " --help\n" << std::endl;
  throw TCLAP::ExitException(1);
}

void CommandLineUsage::Print(TCLAP::CmdLineInterface& parser, std::ostream& out) {
  const std::vector<TCLAP::Arg*> options = ListedOptions(parser);
  out << "\nUSAGE: \n\n";
  PrintBriefUsage(out, options);
  out << "\n\nWhere: \n\n";
  for (const TCLAP::Arg* option : options) {
    PrintWrapped(out, option->longID(), kWidth, kIndent, kIndent);
    PrintWrapped(out, option->getDescription(), kWidth, kDescriptionIndent, 0);
    out << '\n';
  }
  out << '\n';
  PrintMessage(out, parser.getMessage());
  out << std::endl;
}

}  // namespace ulmora::cli
