#pragma once
// Numbers and tables for people.

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace ulmora::tools {

/// "12,345,678".
[[nodiscard]] std::string Grouped(std::int64_t number);

/// With `digits` digits behind the point.
[[nodiscard]] std::string Fixed(double number, int digits);

/// Control characters as "?": texts from a file must not drive the terminal.
[[nodiscard]] std::string Printable(const std::string& text);

enum class Align : std::uint8_t { Left, Right };

/// Writes rows with their columns aligned, two blanks in front and between, none behind the last. Every row has as many
/// cells as there are alignments.
void WriteTable(std::ostream& stream, const std::vector<Align>& columns,
                const std::vector<std::vector<std::string>>& rows);

}  // namespace ulmora::tools
