#pragma once
// The program's only JSON writer: a string with its quotes and escapes. Everything else of a JSON line is literal text.

#include <ostream>
#include <string>

namespace ulmora::cli {

/// Writes the text as a JSON string, quotes included. Bytes from 128 up pass untouched, so UTF-8 arrives as it is; it
/// is not validated. The stream's format flags and fill character are the same afterwards as before.
void JsonString(std::ostream& stream, const std::string& text);

}  // namespace ulmora::cli
