#include "engine/package/CompiledModel.h"

#include "engine/Limits.h"
#include "engine/package/CompiledMetadata.h"
#include "engine/package/ConstantReader.h"
#include "engine/package/MappedFile.h"
#include "engine/package/SizeRanges.h"
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
Feature FeatureOf(const NamedType& value) {
  Feature feature;
  feature.name = value.name;
  if (!value.isTensor) return feature;
  feature.kind = FeatureKind::Tensor;
  feature.element = value.type.element;
  if (IsStatic(value.type.shape)) feature.shape = value.type.shape;
  return feature;
}

std::vector<Feature> InputsOf(const SourceProgram& function) {
  std::vector<Feature> features;
  for (const NamedType& input : function.inputs) features.push_back(FeatureOf(input));
  return features;
}

/// The ranges that a type leaves open.
std::vector<SizeRange> RangesOf(const TensorType& type) {
  std::vector<SizeRange> ranges = FixedRanges(type.shape);
  for (SizeRange& range : ranges) {
    if (range.least == kUnknownDim) range = SizeRange{};
  }
  return ranges;
}

/// Adds what the program says about the shape of one of its inputs to what is known already. Where the feature says
/// which shapes are allowed, that holds.
void AddShapes(Feature& feature, const TensorType& type, const FlexibleShapes& flexible) {
  const auto find = [&](const auto& table) {
    const auto found = table.find(feature.name);
    return found == table.end() ? nullptr : &found->second;
  };
  const Shape* const shape = find(flexible.defaults);
  if (feature.shape.empty() && shape != nullptr) feature.shape = *shape;
  if (!feature.enumerated.empty() || !feature.ranges.empty()) return;
  if (const auto* shapes = find(flexible.enumerated); shapes != nullptr) {
    feature.enumerated = *shapes;
  } else if (const auto* ranges = find(flexible.ranges); ranges != nullptr) {
    CheckRangeCount(ranges->size(), feature.shape);
    feature.ranges = *ranges;
  } else if (type.rankKnown) {
    feature.ranges = RangesOf(type);
  }
}

void AddShapes(std::vector<Feature>& features, const TextProgram& program) {
  for (const NamedType& input : program.function.inputs) {
    const auto feature = std::ranges::find(features, input.name, &Feature::name);
    if (feature == features.end() || feature->kind != FeatureKind::Tensor || !input.isTensor) continue;
    Within([&] { return "input " + Quoted(input.name); },
           [&] { AddShapes(*feature, input.type, program.flexibleShapes); });
  }
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
    if (value != nullptr) features.push_back(FeatureOf(*value));
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
  source.inputs = metadata.inputs.empty() ? InputsOf(program.function) : std::move(metadata.inputs);
  AddShapes(source.inputs, program);
  source.outputs = metadata.outputs.empty() ? OutputsOf(program.function) : std::move(metadata.outputs);
  source.metadata = std::move(metadata.metadata);
  source.program = std::move(program.function);
  return source;
}

}  // namespace ulmora::engine::package
