#include "engine/package/CompiledModel.h"

#include "engine/Limits.h"
#include "engine/package/CompiledMetadata.h"
#include "engine/package/ConstantReader.h"
#include "engine/package/MappedFile.h"
#include "engine/package/Text.h"
#include "engine/package/text/ProgramParser.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

namespace ulmora::engine::package {
namespace {

std::string_view Characters(const MappedFile& file) {
  return {reinterpret_cast<const char*>(file.bytes().data()), file.bytes().size()};
}

CompiledMetadata ReadMetadata(const std::filesystem::path& folder) {
  const std::filesystem::path file = folder / "metadata.json";
  std::error_code ignored;
  return std::filesystem::exists(file, ignored) ? ReadCompiledMetadata(file) : CompiledMetadata{};
}

/// The feature that a value of the program is.
Feature FeatureOf(const NamedType& value, const std::map<std::string, Shape>& defaultShapes) {
  Feature feature;
  feature.name = value.name;
  if (!value.isTensor) return feature;
  feature.kind = FeatureKind::Tensor;
  feature.element = value.type.element;
  const auto known = defaultShapes.find(value.name);
  if (known != defaultShapes.end()) {
    feature.shape = known->second;
  } else if (IsStatic(value.type.shape)) {
    feature.shape = value.type.shape;
  }
  return feature;
}

std::vector<Feature> InputsOf(const TextProgram& program) {
  std::vector<Feature> features;
  for (const NamedType& input : program.function.inputs) features.push_back(FeatureOf(input, program.defaultShapes));
  return features;
}

/// Outputs are results of operations, or inputs that are passed on. One that nothing defines is for the importer to
/// find.
std::vector<Feature> OutputsOf(const SourceProgram& function) {
  std::map<std::string, const NamedType*> wanted;
  for (const std::string& name : function.outputs) wanted.emplace(name, nullptr);
  const auto offer = [&](const NamedType& value) {
    if (const auto found = wanted.find(value.name); found != wanted.end()) found->second = &value;
  };
  std::ranges::for_each(function.inputs, offer);
  for (const SourceOperation& operation : function.operations) std::ranges::for_each(operation.results, offer);
  std::vector<Feature> features;
  for (const std::string& name : function.outputs) {
    // A second mention of an output is none.
    const NamedType* value = std::exchange(wanted.at(name), nullptr);
    if (value != nullptr) features.push_back(FeatureOf(*value, {}));
  }
  return features;
}

/// The version that brought an operation set: CoreML5 came with version 6.
std::int64_t VersionOf(const std::string& opset) {
  constexpr std::string_view kPrefix = "CoreML";
  std::int64_t number = 0;
  std::from_chars(opset.data() + kPrefix.size(), opset.data() + opset.size(), number);
  return number + 1;
}

/// The shapes that the program gives are the only ones that a description without shapes leaves to find.
void AddDefaultShapes(std::vector<Feature>& features, const std::map<std::string, Shape>& shapes) {
  for (Feature& feature : features) {
    const auto known = shapes.find(feature.name);
    if (feature.kind == FeatureKind::Tensor && feature.shape.empty() && known != shapes.end()) {
      feature.shape = known->second;
    }
  }
}

}  // namespace

ModelSource ReadCompiledModel(const Bundle& bundle) {
  CompiledMetadata metadata = ReadMetadata(bundle.model.parent_path());
  const MappedFile text(bundle.model, limits::kMaxProgramTextBytes, Stage::Open);
  ConstantReader constants(bundle);
  TextProgram program = Within([&] { return Quoted(bundle.model.string()); },
                               [&] { return ReadTextProgram(Characters(text), metadata.functionName, constants); });
  ModelSource source;
  source.specificationVersion =
      metadata.specificationVersion > 0 ? metadata.specificationVersion : VersionOf(program.function.opset);
  source.inputs = metadata.inputs.empty() ? InputsOf(program) : std::move(metadata.inputs);
  AddDefaultShapes(source.inputs, program.defaultShapes);
  source.outputs = metadata.outputs.empty() ? OutputsOf(program.function) : std::move(metadata.outputs);
  source.metadata = std::move(metadata.metadata);
  source.program = std::move(program.function);
  return source;
}

}  // namespace ulmora::engine::package
