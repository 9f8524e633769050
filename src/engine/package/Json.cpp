#include "engine/package/Json.h"

#include "engine/Error.h"

#include <google/protobuf/util/json_util.h>

#include <string>

namespace ulmora::engine::package {

google::protobuf::Value ParseJson(std::span<const std::byte> bytes) {
  google::protobuf::Value document;
  const google::protobuf::StringPiece text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const auto status = google::protobuf::util::JsonStringToMessage(text, &document);
  if (!status.ok()) {
    // The parser's message goes on with the offending line and a caret below it.
    const std::string message = std::string(status.message());
    throw Error(Stage::Open, "is not a JSON document: " + message.substr(0, message.find('\n')));
  }
  return document;
}

}  // namespace ulmora::engine::package
