#pragma once
// Weights of the layers of a neural network: where a layer keeps them, which shape they have, and how they are stored.

#include "engine/Limits.h"
#include "engine/Tensor.h"
#include "engine/package/LayerStorage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace google::protobuf {
class FieldDescriptor;
class Message;
}  // namespace google::protobuf

namespace ulmora::coreml::layers {
class Layer;
class Weights;
}  // namespace ulmora::coreml::layers

namespace ulmora::engine::package {

/// What a layer's other parameters say of one of its weights.
struct WeightLayout {
  /// None where the length is the network's business: one number or one per channel.
  std::optional<Shape> shape;
  /// The axis along which scales of quantised weights run: that of the output channels.
  std::size_t channelAxis = 0;
};

/// The layout of the weights that the layer keeps in `field`, "weights" or "PReLU.alpha". Throws Error(Open) for
/// dimensions that no tensor can have.
[[nodiscard]] WeightLayout LayoutOf(const coreml::layers::Layer& layer, std::string_view field);

/// True if there are weights at all; an empty message stands for none.
[[nodiscard]] bool HasPayload(const coreml::layers::Weights& weights);

/// True if the layer says that it has these weights: a bias that it says it does not have may be anything.
[[nodiscard]] bool IsUsed(const google::protobuf::Message& message, const google::protobuf::FieldDescriptor& field);

/// How weights are stored. Throws Error(Open) as LayerWeightReader does for what does not fit the layout.
[[nodiscard]] StoredWeights StorageOf(const coreml::layers::Weights& weights, const WeightLayout& layout);

/// Decodes weights, in whichever of their forms, and keeps account of them.
///   float32      as they are
///   float16      little-endian halves
///   linear       q * scale + bias, q an unsigned number of 1 to 8 bits
///   lookup table table[q], table of 2^bits entries
///   int8         q * scale, q a signed byte
/// Numbers of less than a byte form one stream of bits, most significant bit first. Scale and bias have one entry, or
/// one for each channel; an absent bias is 0.
class LayerWeightReader {
 public:
  /// `maxBytes` bounds the elements of all weights together, decoded.
  explicit LayerWeightReader(std::int64_t maxBytes = limits::kMaxConstantBytes) : maxBytes_(maxBytes) {}

  /// Throws Error(Open) if the weights do not have as many elements as the layout says or are described in a way that
  /// makes no sense; Error(Load) if all weights together pass the bound, which is checked before memory is taken.
  [[nodiscard]] Tensor Read(const coreml::layers::Weights& weights, const WeightLayout& layout);

 private:
  std::int64_t maxBytes_;
  std::int64_t bytesTaken_ = 0;
};

}  // namespace ulmora::engine::package
