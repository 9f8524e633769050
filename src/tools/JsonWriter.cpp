#include "tools/JsonWriter.h"

#include "cli/JsonString.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace ulmora::tools {

void JsonWriter::Separate() {
  if (follows_) stream_.put(',');
  follows_ = true;
}

void JsonWriter::Open(char bracket) {
  Separate();
  stream_.put(bracket);
  follows_ = false;
}

void JsonWriter::Close(char bracket) {
  stream_.put(bracket);
  follows_ = true;
}

void JsonWriter::Key(const std::string& name) {
  Separate();
  cli::JsonString(stream_, name);
  stream_.put(':');
  follows_ = false;
}

void JsonWriter::Text(const std::string& text) {
  Separate();
  cli::JsonString(stream_, text);
}

void JsonWriter::Whole(std::int64_t number) {
  Separate();
  stream_ << std::to_string(number);
}

void JsonWriter::Number(double number) {
  if (!std::isfinite(number)) return Null();
  Separate();
  std::array<char, 32> digits{};
  std::snprintf(digits.data(), digits.size(), "%.9g", number);
  stream_ << digits.data();
}

void JsonWriter::Bool(bool value) {
  Separate();
  stream_ << (value ? "true" : "false");
}

void JsonWriter::Null() {
  Separate();
  stream_ << "null";
}

}  // namespace ulmora::tools
