#include "engine/package/Text.h"

#include <algorithm>

namespace ulmora::engine::package {
namespace {

constexpr std::size_t kQuotedBytes = 1024;
constexpr std::size_t kMaxNameBytes = 1024;

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

}  // namespace

std::string Quoted(std::string_view text) {
  std::string quoted = "'";
  std::size_t length = std::min(text.size(), kQuotedBytes);
  // Not within a character of several bytes.
  while (length < text.size() && length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) --length;
  quoted += text.substr(0, length);
  std::replace_if(quoted.begin(), quoted.end(), IsControl, '?');
  if (text.size() > kQuotedBytes) quoted += "...";
  return quoted + "'";
}

const std::string& CheckedName(const std::string& name, std::string_view what) {
  const std::string subject(what);
  if (name.empty()) throw Error(Stage::Open, subject + " has no name");
  if (name.size() > kMaxNameBytes) {
    throw Error(Stage::Open, subject + " has a name of " + std::to_string(name.size()) + " bytes, expected at most " +
                                 std::to_string(kMaxNameBytes) + ": " + Quoted(name));
  }
  if (std::any_of(name.begin(), name.end(), IsControl)) {
    throw Error(Stage::Open, subject + " has a control character in its name: " + Quoted(name));
  }
  return name;
}

}  // namespace ulmora::engine::package
