#include "engine/package/CompiledMetadata.h"

#include "engine/Limits.h"
#include "engine/package/Json.h"
#include "engine/package/MappedFile.h"
#include "engine/package/SizeRanges.h"
#include "engine/package/Text.h"
#include "engine/package/text/ShapeParser.h"

#include <google/protobuf/struct.pb.h>

#include <set>
#include <string_view>
#include <utility>

namespace ulmora::engine::package {
namespace {

using google::protobuf::ListValue;
using google::protobuf::Struct;
using google::protobuf::Value;

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Open, message);
}

/// The member of that name, or null.
const Value* Find(const Struct& object, const std::string& key) {
  const auto found = object.fields().find(key);
  return found == object.fields().end() ? nullptr : &found->second;
}

/// The string of that name, empty if there is none.
std::string TextOf(const Struct& object, const std::string& key) {
  const Value* value = Find(object, key);
  return value != nullptr && value->has_string_value() ? value->string_value() : std::string();
}

ElementType ElementOf(const std::string& name) {
  static const std::map<std::string, ElementType> kTypes = {{"Float16", ElementType::Float16},
                                                            {"Float32", ElementType::Float32},
                                                            {"Double", ElementType::Float64},
                                                            {"Int8", ElementType::Int8},
                                                            {"Int32", ElementType::Int32}};
  const auto found = kTypes.find(name);
  if (found == kTypes.end()) Fail("has the unknown element type " + Quoted(name));
  return found->second;
}

/// What `parse` makes of a member's whole text, "[1, 3, 64, 64]" for example; an empty list if it has none.
template <typename List>
List ParseMember(const Struct& object, const char* member, List (*parse)(text::Lexer& lexer)) {
  const std::string written = TextOf(object, member);
  if (written.empty()) return {};
  return Within([&] { return Quoted(member) + " is " + Quoted(written); },
                [&] {
                  text::Lexer lexer(written);
                  List list = parse(lexer);
                  if (lexer.Peek().kind != text::TokenKind::End) lexer.FailExpected("the end");
                  return list;
                });
}

constexpr text::ShapeRules kShape = {.owner = "a shape", .smallest = 1, .mayBeOpen = false};

Shape ParseShape(text::Lexer& lexer) {
  return text::ParseShape(lexer, kShape);
}

std::vector<Shape> ParseShapes(text::Lexer& lexer) {
  return text::ParseShapes(lexer, kShape);
}

/// The default shape, and which others are allowed. A shape that is not flexible is the only one.
void ReadShapes(const Struct& source, Feature& feature) {
  feature.shape = ParseMember(source, "shape", ParseShape);
  if (TextOf(source, "hasShapeFlexibility") == "0") {
    feature.ranges = FixedRanges(feature.shape);
    return;
  }
  feature.enumerated = ParseMember(source, "enumeratedShapes", ParseShapes);
  feature.ranges = ParseMember(source, "shapeRange", text::ParseRanges);
  if (!feature.ranges.empty()) CheckRangeCount(feature.ranges.size(), feature.shape);
}

Feature ReadFeature(const Struct& source) {
  Feature feature;
  feature.name = TextOf(source, "name");
  const std::string type = TextOf(source, "type");
  if (type == "MultiArray") {
    feature.kind = FeatureKind::Tensor;
    feature.element = ElementOf(TextOf(source, "dataType"));
    ReadShapes(source, feature);
  } else if (type == "Image") {
    feature.kind = FeatureKind::Image;
  }
  return feature;
}

std::vector<Feature> ReadFeatures(const Struct& object, const std::string& key) {
  std::vector<Feature> features;
  const Value* list = Find(object, key);
  if (list == nullptr) return features;
  if (!list->has_list_value()) Fail(Quoted(key) + " is not a list");
  std::set<std::string> names;
  for (const Value& entry : list->list_value().values()) {
    if (!entry.has_struct_value()) Fail("an entry of " + Quoted(key) + " is not an object");
    const std::string name = TextOf(entry.struct_value(), "name");
    CheckedName(name, "an entry of " + Quoted(key));
    const auto where = [&] { return "entry " + Quoted(name) + " of " + Quoted(key); };
    if (!names.insert(name).second) Fail(where() + " is described twice");
    features.push_back(Within(where, [&] { return ReadFeature(entry.struct_value()); }));
  }
  return features;
}

/// The part that describes the interface: the object itself, or its default function.
const Struct& InterfaceOf(const Struct& object, const std::string& functionName) {
  const Value* functions = Find(object, "functions");
  if (functionName.empty() || functions == nullptr || !functions->has_list_value()) return object;
  for (const Value& function : functions->list_value().values()) {
    if (function.has_struct_value() && TextOf(function.struct_value(), "name") == functionName) {
      return function.struct_value();
    }
  }
  return object;
}

std::map<std::string, std::string> ReadTexts(const Struct& object) {
  std::map<std::string, std::string> texts;
  const Value* own = Find(object, "userDefinedMetadata");
  if (own != nullptr && own->has_struct_value()) {
    for (const auto& [key, value] : own->struct_value().fields()) {
      if (value.has_string_value()) texts[key] = value.string_value();
    }
  }
  const std::pair<const char*, const char*> known[] = {{"shortDescription", "shortDescription"},
                                                       {"versionString", "version"},
                                                       {"author", "author"},
                                                       {"license", "license"}};
  for (const auto& [key, member] : known) {
    if (std::string text = TextOf(object, member); !text.empty()) texts[key] = std::move(text);
  }
  return texts;
}

std::int64_t VersionOf(const Struct& object) {
  const Value* version = Find(object, "specificationVersion");
  if (version == nullptr || !version->has_number_value()) return 0;
  const double number = version->number_value();
  constexpr double kHighest = 1'000'000;
  if (!(number >= 1 && number <= kHighest)) Fail("'specificationVersion' is no version");
  return static_cast<std::int64_t>(number);
}

CompiledMetadata Read(const Value& document) {
  if (!document.has_list_value() || document.list_value().values_size() != 1 ||
      !document.list_value().values(0).has_struct_value()) {
    Fail("is not an array of one object");
  }
  const Struct& object = document.list_value().values(0).struct_value();
  CompiledMetadata result;
  result.specificationVersion = VersionOf(object);
  result.functionName = TextOf(object, "defaultFunctionName");
  const Struct& interface = InterfaceOf(object, result.functionName);
  result.inputs = ReadFeatures(interface, "inputSchema");
  result.outputs = ReadFeatures(interface, "outputSchema");
  result.metadata = ReadTexts(object);
  return result;
}

}  // namespace

CompiledMetadata ReadCompiledMetadata(const std::filesystem::path& file) {
  const MappedFile mapping(file, limits::kMaxMetadataBytes, Stage::Open);
  return Within([&] { return Quoted(file.string()); }, [&] { return Read(ParseJson(mapping.bytes())); });
}

}  // namespace ulmora::engine::package
