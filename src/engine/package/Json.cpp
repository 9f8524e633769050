#include "engine/package/Json.h"

#include "engine/Error.h"

#include <google/protobuf/util/json_util.h>

#include <string>
#include <string_view>

namespace ulmora::engine::package {

namespace {

/// No document of a package is nested half as deep. The parser limits objects but not lists, and takes hours for a
/// megabyte of brackets.
constexpr int kDeepest = 64;

bool IsNestedTooDeep(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') inString = !inString;
    if (inString) {
      if (c == '\\') ++i;
    } else if (c == '[' || c == '{') {
      if (++depth > kDeepest) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

}  // namespace

google::protobuf::Value ParseJson(std::span<const std::byte> bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (IsNestedTooDeep(text)) {
    throw Error(Stage::Open, "is not a JSON document: nested deeper than " + std::to_string(kDeepest) + " levels");
  }
  google::protobuf::Value document;
  const google::protobuf::StringPiece whole(text.data(), text.size());
  const auto status = google::protobuf::util::JsonStringToMessage(whole, &document);
  if (!status.ok()) {
    // The parser's message goes on with the offending line and a caret below it.
    const std::string message = std::string(status.message());
    throw Error(Stage::Open, "is not a JSON document: " + message.substr(0, message.find('\n')));
  }
  return document;
}

}  // namespace ulmora::engine::package
