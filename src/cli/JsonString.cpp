#include "cli/JsonString.h"

#include <iomanip>

namespace ulmora::cli {
namespace {

void WriteByte(std::ostream& stream, unsigned char byte) {
  switch (byte) {
    case '"':
      stream << "\\\"";
      return;
    case '\\':
      stream << "\\\\";
      return;
    case '\b':
      stream << "\\b";
      return;
    case '\f':
      stream << "\\f";
      return;
    case '\n':
      stream << "\\n";
      return;
    case '\r':
      stream << "\\r";
      return;
    case '\t':
      stream << "\\t";
      return;
    default:
      break;
  }
  if (byte >= 32) {
    stream.put(static_cast<char>(byte));
    return;
  }
  // The stream is the caller's: its next number must not come out in hexadecimal.
  const std::ios_base::fmtflags flags = stream.flags();
  const char fill = stream.fill();
  stream << "\\u" << std::hex << std::nouppercase << std::noshowbase << std::right << std::setw(4) << std::setfill('0')
         << static_cast<unsigned>(byte);
  stream.flags(flags);
  stream.fill(fill);
}

}  // namespace

void JsonString(std::ostream& stream, const std::string& text) {
  stream.put('"');
  for (const char c : text) WriteByte(stream, static_cast<unsigned char>(c));
  stream.put('"');
}

}  // namespace ulmora::cli
