// The shapes of weights follow from the layer's sizes.

#include "engine/Error.h"
#include "engine/package/LayerWeights.h"
#include "schema/NeuralNetwork.pb.h"

#include <utility>

namespace ulmora::engine::package {
namespace {

using coreml::layers::Layer;

template <typename Integer>
std::int64_t CheckedSize(Integer size) {
  if (size < Integer{1} || std::cmp_greater(size, limits::kMaxTensorElements)) {
    throw Error(Stage::Open,
                "has a size " + std::to_string(size) + ", expected 1 to " + std::to_string(limits::kMaxTensorElements));
  }
  return static_cast<std::int64_t>(size);
}

/// A dimension of a repeated field, whose elements are all checked.
template <typename Sizes>
Shape CheckedShape(const Sizes& sizes) {
  if (sizes.size() > limits::kMaxRank) {
    throw Error(Stage::Open, "has a shape of rank " + std::to_string(sizes.size()) + ", expected at most " +
                                 std::to_string(limits::kMaxRank));
  }
  Shape shape;
  for (const auto size : sizes) shape.push_back(CheckedSize(size));
  return shape;
}

/// Channels of one group; `what` names the count in messages.
std::int64_t PerGroup(std::int64_t channels, std::int64_t groups, const char* what) {
  if (channels % groups != 0) {
    throw Error(Stage::Open, "has " + std::to_string(channels) + " " + what + ", which " + std::to_string(groups) +
                                 " groups cannot share");
  }
  return channels / groups;
}

/// [outputs, inputs / groups, kernel], or, deconvolving, [inputs, outputs / groups, kernel].
WeightLayout KernelLayout(bool deconvolution, std::int64_t outputs, std::int64_t kernelInputs, std::int64_t groups,
                          const Shape& kernel) {
  Shape shape =
      deconvolution ? Shape{kernelInputs, PerGroup(outputs, groups, "output channels")} : Shape{outputs, kernelInputs};
  shape.insert(shape.end(), kernel.begin(), kernel.end());
  return {std::move(shape), deconvolution ? std::size_t{1} : std::size_t{0}};
}

WeightLayout OfConvolution(const coreml::layers::Convolution& layer, std::string_view field) {
  const std::int64_t outputs = CheckedSize(layer.outputchannels());
  if (field == "bias") return {Shape{outputs}};
  const std::int64_t groups = layer.ngroups() == 0 ? 1 : CheckedSize(layer.ngroups());
  const Shape kernel = layer.kernelsize().empty() ? Shape{3, 3} : CheckedShape(layer.kernelsize());
  return KernelLayout(layer.isdeconvolution(), outputs, CheckedSize(layer.kernelchannels()), groups, kernel);
}

WeightLayout OfConvolution3D(const coreml::layers::Convolution3D& layer, std::string_view field) {
  const std::int64_t outputs = CheckedSize(layer.outputchannels());
  if (field == "bias") return {Shape{outputs}};
  const std::int64_t groups = layer.ngroups() == 0 ? 1 : CheckedSize(layer.ngroups());
  const std::int64_t inputs = CheckedSize(layer.inputchannels());
  const Shape kernel = {CheckedSize(layer.kerneldepth()), CheckedSize(layer.kernelheight()),
                        CheckedSize(layer.kernelwidth())};
  const std::int64_t kernelInputs = layer.isdeconvolution() ? inputs : PerGroup(inputs, groups, "input channels");
  return KernelLayout(layer.isdeconvolution(), outputs, kernelInputs, groups, kernel);
}

WeightLayout OfInnerProduct(const coreml::layers::InnerProduct& layer, std::string_view field) {
  const std::int64_t outputs = CheckedSize(layer.outputchannels());
  if (field == "bias") return {Shape{outputs}};
  return {Shape{outputs, CheckedSize(layer.inputchannels())}};
}

/// A column for each word.
WeightLayout OfEmbedding(std::uint64_t outputs, std::uint64_t words, std::string_view field) {
  if (field == "bias") return {Shape{CheckedSize(outputs)}};
  return {Shape{CheckedSize(outputs), CheckedSize(words)}};
}

/// The matrix lies in memory column by column.
WeightLayout OfBatchedMatmul(const coreml::layers::BatchedMatmul& layer, std::string_view field) {
  const std::int64_t columns = CheckedSize(layer.weightmatrixseconddimension());
  if (field == "bias") return {Shape{columns}};
  return {Shape{columns, CheckedSize(layer.weightmatrixfirstdimension())}};
}

}  // namespace

WeightLayout LayoutOf(const Layer& layer, std::string_view field) {
  switch (layer.layer_case()) {
    case Layer::kConvolution:
      return OfConvolution(layer.convolution(), field);
    case Layer::kConvolution3D:
      return OfConvolution3D(layer.convolution3d(), field);
    case Layer::kInnerProduct:
      return OfInnerProduct(layer.innerproduct(), field);
    case Layer::kEmbedding:
      return OfEmbedding(layer.embedding().outputchannels(), layer.embedding().inputdim(), field);
    case Layer::kEmbeddingND:
      return OfEmbedding(layer.embeddingnd().embeddingsize(), layer.embeddingnd().vocabsize(), field);
    case Layer::kBatchedMatmul:
      return OfBatchedMatmul(layer.batchedmatmul(), field);
    case Layer::kBatchnorm:
      return {Shape{CheckedSize(layer.batchnorm().channels())}};
    case Layer::kScale:
      return {CheckedShape(field == "scale" ? layer.scale().shapescale() : layer.scale().shapebias())};
    case Layer::kBias:
      return {CheckedShape(layer.bias().shape())};
    case Layer::kLoadConstant:
      return {CheckedShape(layer.loadconstant().shape())};
    case Layer::kLoadConstantND:
      return {CheckedShape(layer.loadconstantnd().shape())};
    case Layer::kLayerNormalization:
      return {CheckedShape(layer.layernormalization().normalizedshape())};
    default:
      return {};
  }
}

}  // namespace ulmora::engine::package
