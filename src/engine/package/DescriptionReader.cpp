#include "engine/package/DescriptionReader.h"

#include "engine/Limits.h"
#include "engine/package/SizeRanges.h"
#include "engine/package/Text.h"
#include "schema/Model.pb.h"

#include <algorithm>
#include <set>
#include <utility>

namespace ulmora::engine::package {
namespace {

using Features = google::protobuf::RepeatedPtrField<coreml::FeatureDescription>;

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Open, message);
}

ElementType ElementOf(coreml::ArrayFeatureType::ArrayDataType type) {
  switch (type) {
    case coreml::ArrayFeatureType::FLOAT16:
      return ElementType::Float16;
    case coreml::ArrayFeatureType::FLOAT32:
      return ElementType::Float32;
    case coreml::ArrayFeatureType::DOUBLE:
      return ElementType::Float64;
    case coreml::ArrayFeatureType::INT8:
      return ElementType::Int8;
    case coreml::ArrayFeatureType::INT32:
      return ElementType::Int32;
    default:
      Fail("has the unknown element type number " + std::to_string(static_cast<int>(type)));
  }
}

std::int64_t CheckedSize(std::int64_t size) {
  if (size < 1 || size > limits::kMaxTensorElements) {
    Fail("has a dimension of size " + std::to_string(size) + ", expected 1 to " +
         std::to_string(limits::kMaxTensorElements));
  }
  return size;
}

Shape ReadShape(const google::protobuf::RepeatedField<std::int64_t>& sizes) {
  if (sizes.size() > limits::kMaxRank) {
    Fail("has rank " + std::to_string(sizes.size()) + ", expected at most " + std::to_string(limits::kMaxRank));
  }
  Shape shape;
  for (const std::int64_t size : sizes) shape.push_back(CheckedSize(size));
  return shape;
}

std::vector<Shape> ReadShapes(const coreml::EnumeratedShapes& source) {
  if (source.shapes_size() > limits::kMaxEnumeratedShapes) {
    Fail("lists " + std::to_string(source.shapes_size()) + " shapes, expected at most " +
         std::to_string(limits::kMaxEnumeratedShapes));
  }
  std::vector<Shape> shapes;
  for (const coreml::ArrayShape& shape : source.shapes()) shapes.push_back(ReadShape(shape.shape()));
  return shapes;
}

std::vector<SizeRange> ReadRanges(const coreml::ShapeRange& source, const Shape& shape) {
  CheckRangeCount(static_cast<std::size_t>(source.sizeranges_size()), shape);
  std::vector<SizeRange> ranges;
  for (const coreml::SizeRange& range : source.sizeranges()) {
    ranges.push_back(CheckedRange(range.lowerbound(), range.upperbound()));
  }
  return ranges;
}

/// The tensor that an image is for the program: [1, C, H, W].
Shape ShapeOfImage(const coreml::ImageFeatureType& image) {
  using coreml::ImageFeatureType;
  const bool isGray =
      image.colorspace() == ImageFeatureType::GRAYSCALE || image.colorspace() == ImageFeatureType::GRAYSCALE_FLOAT16;
  return {1, isGray ? 1 : 3, CheckedSize(image.height()), CheckedSize(image.width())};
}

Feature ReadFeature(const coreml::FeatureDescription& source) {
  Feature feature;
  feature.name = source.name();
  const coreml::FeatureType& type = source.type();
  if (type.has_multiarraytype()) {
    feature.kind = FeatureKind::Tensor;
    feature.element = ElementOf(type.multiarraytype().datatype());
    feature.shape = ReadShape(type.multiarraytype().shape());
    const coreml::ArrayFeatureType& array = type.multiarraytype();
    if (array.has_enumeratedshapes()) feature.enumerated = ReadShapes(array.enumeratedshapes());
    if (array.has_shaperange()) feature.ranges = ReadRanges(array.shaperange(), feature.shape);
    if (!array.has_enumeratedshapes() && !array.has_shaperange()) feature.ranges = FixedRanges(feature.shape);
  } else if (type.has_imagetype()) {
    feature.kind = FeatureKind::Image;
    feature.shape = ShapeOfImage(type.imagetype());
  }
  return feature;
}

std::vector<Feature> ReadFeatures(const Features& sources, const char* what) {
  if (sources.size() > limits::kMaxOperands) {
    Fail("the description has " + std::to_string(sources.size()) + " features, expected at most " +
         std::to_string(limits::kMaxOperands));
  }
  std::vector<Feature> features;
  std::set<std::string> names;
  for (const coreml::FeatureDescription& source : sources) {
    CheckedName(source.name(), what);
    const auto where = [&] { return std::string(what) + " " + Quoted(source.name()); };
    features.push_back(Within(where, [&] { return ReadFeature(source); }));
    if (!names.insert(source.name()).second) Fail(where() + " is described twice");
  }
  return features;
}

std::map<std::string, std::string> ReadMetadata(const coreml::Metadata& source) {
  std::map<std::string, std::string> result(source.userdefined().begin(), source.userdefined().end());
  const std::pair<const char*, const std::string&> known[] = {
      {"shortDescription", source.shortdescription()},
      {"versionString", source.versionstring()},
      {"author", source.author()},
      {"license", source.license()},
  };
  for (const auto& [key, text] : known) {
    if (!text.empty()) result[key] = text;
  }
  return result;
}

}  // namespace

Description ReadDescription(const coreml::ModelDescription& description) {
  Description result;
  result.functionName = description.defaultfunctionname().empty() ? "main" : description.defaultfunctionname();
  result.metadata = ReadMetadata(description.metadata());
  const Features* inputs = &description.input();
  const Features* outputs = &description.output();
  if (description.functions_size() > 0) {
    const auto function =
        std::find_if(description.functions().begin(), description.functions().end(),
                     [&](const coreml::FunctionDescription& each) { return each.name() == result.functionName; });
    if (function == description.functions().end()) {
      throw Error(Stage::Translate, "the description has no function " + Quoted(result.functionName));
    }
    inputs = &function->input();
    outputs = &function->output();
  }
  result.inputs = ReadFeatures(*inputs, "input");
  result.outputs = ReadFeatures(*outputs, "output");
  return result;
}

}  // namespace ulmora::engine::package
