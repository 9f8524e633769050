#include "engine/package/Manifest.h"

#include "engine/Limits.h"
#include "engine/package/Json.h"
#include "engine/package/MappedFile.h"
#include "engine/package/Text.h"

#include <google/protobuf/struct.pb.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string>

namespace ulmora::engine::package {
namespace {

using google::protobuf::Struct;
using google::protobuf::Value;

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Open, message);
}

const Value& Member(const Struct& object, std::string_view key, Value::KindCase kind, const char* kindName) {
  const auto found = object.fields().find(std::string(key));
  if (found == object.fields().end()) Fail("has no " + Quoted(key) + ", expected " + kindName);
  if (found->second.kind_case() != kind) Fail(Quoted(key) + " is not " + kindName);
  return found->second;
}

const std::string& Text(const Struct& object, std::string_view key) {
  return Member(object, key, Value::kStringValue, "a string").string_value();
}

const Struct& Object(const Struct& object, std::string_view key) {
  return Member(object, key, Value::kStructValue, "an object").struct_value();
}

/// Three integers with dots between them.
std::optional<std::array<int, 3>> ParseVersion(const std::string& text) {
  std::array<int, 3> numbers{};
  const char* position = text.data();
  const char* const end = text.data() + text.size();
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    if (i > 0 && (position == end || *position++ != '.')) return std::nullopt;
    const auto [next, error] = std::from_chars(position, end, numbers[i]);
    if (error != std::errc() || numbers[i] < 0) return std::nullopt;
    position = next;
  }
  if (position != end) return std::nullopt;
  return numbers;
}

void CheckVersion(const std::string& text) {
  const std::optional<std::array<int, 3>> version = ParseVersion(text);
  if (!version) Fail("'fileFormatVersion' is " + Quoted(text) + ", expected three integers such as '1.0.0'");
  if (*version > std::array{1, 0, 0}) Fail("is of format version " + text + ", the newest known is 1.0.0");
}

std::filesystem::path RootModel(const Value& parsed) {
  if (!parsed.has_struct_value()) Fail("is not a JSON object");
  const Struct& document = parsed.struct_value();
  CheckVersion(Text(document, "fileFormatVersion"));
  const std::string& identifier = Text(document, "rootModelIdentifier");
  const Struct& items = Object(document, "itemInfoEntries");
  if (items.fields().count(identifier) == 0)
    Fail("has no item " + Quoted(identifier) + ", which is to be the root model");
  const std::string& path = Text(Object(items, identifier), "path");
  const std::optional<std::filesystem::path> relative = RelativePath(path);
  if (!relative) Fail("the path " + Quoted(path) + " of the root model does not lie within the package");
  return *relative;
}

}  // namespace

std::optional<std::filesystem::path> RelativePath(std::string_view text) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20; };
  if (text.empty() || std::any_of(text.begin(), text.end(), isControl)) return std::nullopt;
  std::filesystem::path path(text);
  if (path.is_absolute()) return std::nullopt;
  if (std::find(path.begin(), path.end(), "..") != path.end()) return std::nullopt;
  return path;
}

std::filesystem::path ReadManifest(const std::filesystem::path& manifest) {
  const MappedFile file(manifest, limits::kMaxManifestBytes, Stage::Open);
  return Within([&] { return Quoted(manifest.string()); }, [&] { return RootModel(ParseJson(file.bytes())); });
}

}  // namespace ulmora::engine::package
