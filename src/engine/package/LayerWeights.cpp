#include "engine/package/LayerWeights.h"

#include "engine/Error.h"
#include "engine/package/ElementDecoding.h"
#include "schema/LayerWeights.pb.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <span>
#include <string>
#include <utility>
#include <vector>

namespace ulmora::engine::package {
namespace {

using coreml::layers::Quantization;
using coreml::layers::Weights;
using Numbers = google::protobuf::RepeatedField<float>;

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Open, message);
}

std::span<const std::byte> BytesOf(const std::string& text) {
  return std::as_bytes(std::span(text));
}

int CheckedBits(const Quantization& quantization) {
  if (quantization.numberofbits() < 1 || quantization.numberofbits() > 8) {
    Fail("are quantised to " + std::to_string(quantization.numberofbits()) + " bits, expected 1 to 8");
  }
  return static_cast<int>(quantization.numberofbits());
}

/// Bits of one stored element.
int BitsOf(const Weights& weights) {
  if (weights.floatvalue_size() > 0) return 32;
  if (!weights.float16value().empty()) return 16;
  return weights.int8rawvalue().empty() ? CheckedBits(weights.quantization()) : 8;
}

std::size_t StoredBytes(const Weights& weights) {
  return static_cast<std::size_t>(weights.floatvalue_size()) * sizeof(float) + weights.float16value().size() +
         weights.rawvalue().size() + weights.int8rawvalue().size();
}

void RequireOnePayload(const Weights& weights) {
  const int forms = (weights.floatvalue_size() > 0 ? 1 : 0) + (weights.float16value().empty() ? 0 : 1) +
                    (weights.rawvalue().empty() ? 0 : 1) + (weights.int8rawvalue().empty() ? 0 : 1);
  if (forms != 1) Fail("are stored in " + std::to_string(forms) + " forms, expected 1");
}

/// The shape of the layout, once the stored bytes are known to be those of its elements. Without one, a vector of all
/// elements that are there: parameters of activations are one number or one per channel.
Shape CheckedShape(const Weights& weights, const WeightLayout& layout) {
  const auto bits = static_cast<std::uint64_t>(BitsOf(weights));
  const std::uint64_t stored = StoredBytes(weights);
  const auto expected = [bits](std::uint64_t count) { return (count * bits + 7) / 8; };
  if (layout.shape) {
    const auto count = static_cast<std::uint64_t>(ElementCount(*layout.shape));
    if (stored == expected(count)) return *layout.shape;
    Fail("hold " + std::to_string(stored) + " bytes, expected " + std::to_string(expected(count)) + " for shape " +
         ToString(*layout.shape) + " of " + std::to_string(bits) + " bits each");
  }
  const std::uint64_t count = stored * 8 / bits;
  if (bits < 8 || stored != expected(count) || std::cmp_greater(count, limits::kMaxTensorElements)) {
    Fail("hold " + std::to_string(stored) + " bytes of " + std::to_string(bits) + "-bit elements, which fit no length");
  }
  return {static_cast<std::int64_t>(count)};
}

/// The number of elements between one channel and the next, and of channels.
struct Channels {
  std::size_t run = 1;
  std::size_t count = 1;

  [[nodiscard]] std::size_t Of(std::size_t element) const noexcept { return element / run % count; }
};

Channels ChannelsOf(const Shape& shape, std::size_t axis) {
  Channels channels;
  for (std::size_t i = axis + 1; i < shape.size(); ++i) channels.run *= static_cast<std::size_t>(shape[i]);
  if (axis < shape.size()) channels.count = static_cast<std::size_t>(shape[axis]);
  return channels;
}

/// Numbers of one entry, or of one for each channel.
class PerChannel {
 public:
  PerChannel(const Numbers& numbers, const Channels& channels, const char* what)
      : numbers_(numbers), channels_(channels), single_(numbers.size() == 1) {
    if (!single_ && std::cmp_not_equal(numbers.size(), channels.count)) {
      Fail("have " + std::to_string(numbers.size()) + " " + what + ", expected 1 or " + std::to_string(channels.count));
    }
  }

  [[nodiscard]] float At(std::size_t element) const {
    return numbers_[single_ ? 0 : static_cast<int>(channels_.Of(element))];
  }

 private:
  const Numbers& numbers_;
  Channels channels_;
  bool single_;
};

/// Element `index` of a stream of `bits` each, most significant bit first; none straddles more than two bytes.
unsigned QuantizedAt(const std::string& bytes, std::size_t index, int bits) {
  const std::size_t firstBit = index * static_cast<std::size_t>(bits);
  const std::size_t byte = firstBit / 8;
  const auto at = [&](std::size_t i) { return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U; };
  const unsigned window = at(byte) << 8U | at(byte + 1);
  const auto shift = static_cast<unsigned>(16 - static_cast<int>(firstBit % 8) - bits);
  return window >> shift & ((1U << static_cast<unsigned>(bits)) - 1U);
}

std::vector<float> FromLookupTable(const Weights& weights, std::size_t count) {
  const Quantization& quantization = weights.quantization();
  const int bits = CheckedBits(quantization);
  const Numbers& table = quantization.lookuptablequantization().floatvalue();
  if (table.size() != 1 << bits) {
    Fail("have a lookup table of " + std::to_string(table.size()) + " entries, expected " + std::to_string(1 << bits));
  }
  std::vector<float> values(count);
  for (std::size_t i = 0; i < count; ++i) {
    values[i] = table[static_cast<int>(QuantizedAt(weights.rawvalue(), i, bits))];
  }
  return values;
}

std::vector<float> FromLinear(const Weights& weights, std::size_t count, const Channels& channels) {
  const Quantization& quantization = weights.quantization();
  const int bits = CheckedBits(quantization);
  static const Numbers kNoBias = [] {
    Numbers zero;
    zero.Add(0.0F);
    return zero;
  }();
  const Numbers& given = quantization.linearquantization().bias();
  const PerChannel scale(quantization.linearquantization().scale(), channels, "scales");
  const PerChannel bias(given.empty() ? kNoBias : given, channels, "biases");
  std::vector<float> values(count);
  for (std::size_t i = 0; i < count; ++i) {
    values[i] = static_cast<float>(QuantizedAt(weights.rawvalue(), i, bits)) * scale.At(i) + bias.At(i);
  }
  return values;
}

std::vector<float> FromSignedBytes(const Weights& weights, std::size_t count, const Channels& channels) {
  const PerChannel scale(weights.quantization().linearquantization().scale(), channels, "scales");
  std::vector<float> values(count);
  for (std::size_t i = 0; i < count; ++i) {
    values[i] = static_cast<float>(static_cast<signed char>(weights.int8rawvalue()[i])) * scale.At(i);
  }
  return values;
}

std::vector<float> Decoded(const Weights& weights, std::size_t count, const Channels& channels) {
  if (!weights.int8rawvalue().empty()) return FromSignedBytes(weights, count, channels);
  switch (weights.quantization().QuantizationType_case()) {
    case Quantization::kLookupTableQuantization:
      return FromLookupTable(weights, count);
    case Quantization::kLinearQuantization:
      return FromLinear(weights, count, channels);
    default:
      Fail("are quantised in a way that is not described");
  }
}

}  // namespace

bool IsUsed(const google::protobuf::Message& message, const google::protobuf::FieldDescriptor& field) {
  const auto* hasBias = message.GetDescriptor()->FindFieldByName("hasBias");
  return field.name() != "bias" || hasBias == nullptr || message.GetReflection()->GetBool(message, hasBias);
}

StoredWeights StorageOf(const Weights& weights, const WeightLayout& layout) {
  RequireOnePayload(weights);
  StoredWeights stored;
  stored.elements = ElementCount(CheckedShape(weights, layout));
  stored.bytes = static_cast<std::int64_t>(StoredBytes(weights));
  if (weights.floatvalue_size() > 0 || !weights.float16value().empty()) {
    stored.form = weights.floatvalue_size() > 0 ? "float32" : "float16";
    return stored;
  }
  const Quantization& quantization = weights.quantization();
  const auto& linear = quantization.linearquantization();
  const auto& table = quantization.lookuptablequantization();
  stored.bytes +=
      (linear.scale_size() + linear.bias_size() + table.floatvalue_size()) * static_cast<std::int64_t>(sizeof(float));
  stored.form = std::string(quantization.has_lookuptablequantization() ? "palettized (" : "quantized (") +
                (weights.int8rawvalue().empty() ? "uint" : "int") + std::to_string(BitsOf(weights)) + ")";
  return stored;
}

bool HasPayload(const Weights& weights) {
  return StoredBytes(weights) > 0;
}

Tensor LayerWeightReader::Read(const Weights& weights, const WeightLayout& layout) {
  RequireOnePayload(weights);
  Shape shape = CheckedShape(weights, layout);
  const std::int64_t count = ElementCount(shape);
  const std::int64_t bytes = count * static_cast<std::int64_t>(sizeof(float));
  if (bytes > maxBytes_ - bytesTaken_) {
    throw Error(Stage::Load, "constants of more than " + std::to_string(maxBytes_) + " bytes");
  }
  bytesTaken_ += bytes;
  if (weights.floatvalue_size() > 0) {
    return Tensor::Floats(std::move(shape), {weights.floatvalue().begin(), weights.floatvalue().end()});
  }
  if (!weights.float16value().empty()) {
    return DecodeElements(BytesOf(weights.float16value()), ElementType::Float16, std::move(shape));
  }
  const Channels channels = ChannelsOf(shape, layout.channelAxis);
  std::vector<float> values = Decoded(weights, static_cast<std::size_t>(count), channels);
  return Tensor::Floats(std::move(shape), std::move(values));
}

}  // namespace ulmora::engine::package
