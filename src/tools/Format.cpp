#include "tools/Format.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace ulmora::tools {

std::string Grouped(std::int64_t number) {
  std::string text = std::to_string(number);
  const std::ptrdiff_t first = number < 0 ? 1 : 0;
  for (std::ptrdiff_t at = std::ssize(text) - 3; at > first; at -= 3) text.insert(static_cast<std::size_t>(at), 1, ',');
  return text;
}

std::string Fixed(double number, int digits) {
  std::array<char, 400> text{};
  std::snprintf(text.data(), text.size(), "%.*f", digits, number);
  return text.data();
}

std::string Printable(const std::string& text) {
  std::string result = text;
  std::ranges::replace_if(
      result, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
  return result;
}

void WriteTable(std::ostream& stream, const std::vector<Align>& columns,
                const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths(columns.size(), 0);
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < columns.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const std::string blanks(widths[i] - row[i].size(), ' ');
      line += "  " + (columns[i] == Align::Right ? blanks + row[i] : row[i] + blanks);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    stream << line << '\n';
  }
}

}  // namespace ulmora::tools
