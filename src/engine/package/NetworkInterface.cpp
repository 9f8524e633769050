// The interface of a neural network: arrays as its layers see them.

#include "engine/package/NeuralNetworkReader.h"
#include "engine/package/Text.h"
#include "schema/Model.pb.h"

#include <algorithm>

namespace ulmora::engine::package {
namespace {

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Translate, message);
}

/// True if the network sees the feature with a sequence in front.
bool HasSequence(const Feature& feature, const SourceNetwork& network) {
  return feature.kind == FeatureKind::Image ? !network.exactImages : !network.exactArrays;
}

/// [C] as [1, C, 1, 1] and [C, H, W] as [1, C, H, W]; other shapes stay as they are.
void AddBatch(Shape& shape) {
  if (shape.size() == 1) shape.insert(shape.end(), {1, 1});
  if (shape.size() == 3) shape.insert(shape.begin(), 1);
}

/// Marks the dimensions that may have several sizes.
void OpenFlexible(const coreml::ArrayFeatureType& type, Shape& shape) {
  const auto checkRank = [&](int rank) {
    if (std::cmp_not_equal(rank, shape.size())) {
      Fail("is flexible in " + std::to_string(rank) + " dimensions, but has shape " + ToString(shape));
    }
  };
  const Shape fixed = shape;
  if (type.has_shaperange()) {
    checkRank(type.shaperange().sizeranges_size());
    for (std::size_t i = 0; i < shape.size(); ++i) {
      const coreml::SizeRange& range = type.shaperange().sizeranges(static_cast<int>(i));
      if (std::cmp_not_equal(range.lowerbound(), range.upperbound())) shape[i] = kUnknownDim;
    }
  }
  for (const coreml::ArrayShape& other : type.enumeratedshapes().shapes()) {
    checkRank(other.shape_size());
    for (std::size_t i = 0; i < shape.size(); ++i) {
      if (other.shape(static_cast<int>(i)) != fixed[i]) shape[i] = kUnknownDim;
    }
  }
}

NamedType InputOf(const Feature& feature, const coreml::FeatureType& declared, const SourceNetwork& network) {
  if (feature.kind == FeatureKind::Other) Fail("is neither an array nor an image");
  if (feature.shape.empty()) Fail("has no shape");
  NamedType input{feature.name, {ElementType::Float32, feature.shape, true}};
  if (declared.has_multiarraytype()) OpenFlexible(declared.multiarraytype(), input.type.shape);
  if (feature.kind == FeatureKind::Tensor && HasSequence(feature, network)) {
    if (feature.shape.size() != 1 && feature.shape.size() != 3) {
      Fail("has shape " + ToString(feature.shape) + ", expected [C] or [C, H, W]");
    }
    AddBatch(input.type.shape);
  }
  return input;
}

}  // namespace

void ReadNetworkInterface(const coreml::ModelDescription& declared, Description& description, SourceNetwork& network) {
  for (std::size_t i = 0; i < description.inputs.size(); ++i) {
    Feature& feature = description.inputs[i];
    const coreml::FeatureType& type = declared.input(static_cast<int>(i)).type();
    network.inputs.push_back(
        Within([&] { return "input " + Quoted(feature.name); }, [&] { return InputOf(feature, type, network); }));
    if (HasSequence(feature, network)) AddBatch(feature.shape);
  }
  for (Feature& feature : description.outputs) {
    if (HasSequence(feature, network)) AddBatch(feature.shape);
  }
}

}  // namespace ulmora::engine::package
