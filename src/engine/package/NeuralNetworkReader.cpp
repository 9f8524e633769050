// The many kinds of layers are read by what the schema says of their fields, not one by one.

#include "engine/package/NeuralNetworkReader.h"

#include "engine/Limits.h"
#include "engine/package/ElementDecoding.h"
#include "engine/package/LayerWeights.h"
#include "engine/package/Text.h"
#include "schema/NeuralNetwork.pb.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <limits>
#include <optional>
#include <utility>

namespace ulmora::engine::package {
namespace {

using coreml::layers::BorderAmounts;
using coreml::layers::Layer;
using coreml::layers::Network;
using coreml::layers::Weights;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

/// Protobuf stores at most 2^31 bytes, so that only the sum over all values has to be looked at.
void CheckCount(std::int64_t count, std::int64_t limit, const char* what) {
  if (count > limit) {
    throw Error(Stage::Translate,
                "has " + std::to_string(count) + " " + what + ", expected at most " + std::to_string(limit));
  }
}

std::int32_t Int32(std::uint64_t value) {
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max());
  return static_cast<std::int32_t>(std::min(value, kMost));
}

/// Reads the fields of one layer.
class FieldReader {
 public:
  FieldReader(const Layer& layer, LayerWeightReader& weights) : layer_(layer), weights_(weights) {}

  std::map<std::string, Tensor> Read() {
    const Reflection& reflection = *layer_.GetReflection();
    const FieldDescriptor* kind = reflection.GetOneofFieldDescriptor(layer_, layer_.GetDescriptor()->oneof_decl(0));
    ReadMessage(reflection.GetMessage(layer_, kind), "");
    return std::move(fields_);
  }

 private:
  void ReadMessage(const Message& message, const std::string& prefix) {
    const google::protobuf::Descriptor& descriptor = *message.GetDescriptor();
    for (int i = 0; i < descriptor.field_count(); ++i) {
      const FieldDescriptor& field = *descriptor.field(i);
      const std::string name = prefix + field.name();
      const auto where = [&] { return "parameter " + Quoted(name); };
      Within(where, [&] {
        if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
          if (message.GetReflection()->HasField(message, &field)) ReadNested(message, field, name);
        } else if (field.is_repeated()) {
          fields_.emplace(name, Repeated(message, field));
        } else {
          fields_.emplace(name, Single(message, field));
        }
      });
    }
  }

  void ReadNested(const Message& message, const FieldDescriptor& field, const std::string& name) {
    const Message& nested = message.GetReflection()->GetMessage(message, &field);
    if (const auto* weights = dynamic_cast<const Weights*>(&nested)) {
      if (IsUsed(message, field) && HasPayload(*weights)) {
        fields_.emplace(name, weights_.Read(*weights, LayoutOf(layer_, name)));
      }
    } else if (const auto* borders = dynamic_cast<const BorderAmounts*>(&nested)) {
      fields_.emplace(name, Borders(*borders));
    } else {
      fields_.emplace(name, Tensor::Bool(true));
      ReadMessage(nested, name + ".");
    }
  }

  /// [axes, 2]: before and after.
  static Tensor Borders(const BorderAmounts& borders) {
    CheckCount(borders.borderamounts_size(), limits::kMaxRank, "borders");
    std::vector<std::int32_t> amounts;
    for (const coreml::layers::EdgeSizes& edges : borders.borderamounts()) {
      amounts.push_back(Int32(edges.startedgesize()));
      amounts.push_back(Int32(edges.endedgesize()));
    }
    return Tensor::Ints({borders.borderamounts_size(), 2}, std::move(amounts));
  }

  static Tensor Single(const Message& message, const FieldDescriptor& field) {
    const Reflection& reflection = *message.GetReflection();
    switch (field.cpp_type()) {
      case FieldDescriptor::CPPTYPE_BOOL:
        return Tensor::Bool(reflection.GetBool(message, &field));
      case FieldDescriptor::CPPTYPE_FLOAT:
        return Tensor::Float(reflection.GetFloat(message, &field));
      case FieldDescriptor::CPPTYPE_INT32:
        return Tensor::Int(reflection.GetInt32(message, &field));
      case FieldDescriptor::CPPTYPE_INT64:
        return Tensor::Int(Saturated(reflection.GetInt64(message, &field)));
      case FieldDescriptor::CPPTYPE_UINT64:
        return Tensor::Int(Int32(reflection.GetUInt64(message, &field)));
      case FieldDescriptor::CPPTYPE_ENUM:
        return Tensor::Text(Enumerator(field, reflection.GetEnumValue(message, &field)));
      default:
        throw std::logic_error("layer field " + std::string(field.name()) + " is of a type that no layer has");
    }
  }

  static std::string Enumerator(const FieldDescriptor& field, int number) {
    const auto* value = field.enum_type()->FindValueByNumber(number);
    if (value != nullptr) return std::string(value->name());
    throw Error(Stage::Translate, "has the unknown value number " + std::to_string(number));
  }

  static Tensor Repeated(const Message& message, const FieldDescriptor& field) {
    const Reflection& reflection = *message.GetReflection();
    const int count = reflection.FieldSize(message, &field);
    CheckCount(count, limits::kMaxOperands, "entries");
    std::vector<std::int32_t> ints;
    std::vector<float> floats;
    std::vector<std::uint8_t> bools;
    for (int i = 0; i < count; ++i) {
      switch (field.cpp_type()) {
        case FieldDescriptor::CPPTYPE_BOOL:
          bools.push_back(reflection.GetRepeatedBool(message, &field, i) ? 1 : 0);
          break;
        case FieldDescriptor::CPPTYPE_FLOAT:
          floats.push_back(reflection.GetRepeatedFloat(message, &field, i));
          break;
        case FieldDescriptor::CPPTYPE_INT64:
          ints.push_back(Saturated(reflection.GetRepeatedInt64(message, &field, i)));
          break;
        case FieldDescriptor::CPPTYPE_UINT64:
          ints.push_back(Int32(reflection.GetRepeatedUInt64(message, &field, i)));
          break;
        default:
          throw std::logic_error("layer field " + std::string(field.name()) + " is of a type that no layer has");
      }
    }
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_BOOL) return Tensor::Bools({count}, std::move(bools));
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_FLOAT) return Tensor::Floats({count}, std::move(floats));
    return Tensor::IntVector(std::move(ints));
  }

  const Layer& layer_;
  LayerWeightReader& weights_;
  std::map<std::string, Tensor> fields_;
};

/// The format's name of the layer's kind, "convolution"; empty if the message does not say or we do not know.
std::string KindOf(const Layer& layer) {
  if (layer.layer_case() == Layer::LAYER_NOT_SET) return {};
  return std::string(layer.GetDescriptor()->FindFieldByNumber(layer.layer_case())->name());
}

SourceLayer ReadLayer(const Layer& layer, LayerWeightReader& weights) {
  SourceLayer result;
  result.kind = KindOf(layer);
  result.name = layer.name();
  CheckCount(layer.input_size(), limits::kMaxOperands, "inputs");
  CheckCount(layer.output_size(), limits::kMaxOperands, "outputs");
  for (const std::string& input : layer.input()) result.inputs.push_back(CheckedName(input, "an input"));
  for (const std::string& output : layer.output()) result.outputs.push_back(CheckedName(output, "an output"));
  for (const coreml::layers::BlobType& type : layer.outputtensor()) {
    if (result.outputRanks.size() == result.outputs.size()) break;
    result.outputRanks.push_back(Int32(type.rank()));
  }
  if (!result.kind.empty()) result.parameters = FieldReader(layer, weights).Read();
  return result;
}

/// For messages.
std::string Title(const Layer& layer) {
  const std::string kind = KindOf(layer);
  return (kind.empty() ? "unknown" : kind) + " layer " + Quoted(layer.name());
}

}  // namespace

SourceNetwork ReadNeuralNetwork(const Network& network) {
  CheckCount(network.layers_size(), limits::kMaxOperations, "layers");
  std::int64_t values = 0;
  for (const Layer& layer : network.layers()) values += layer.output_size();
  CheckCount(values, limits::kMaxValues, "values");
  SourceNetwork result;
  result.exactArrays = network.arrayinputshapemapping() == Network::EXACT_ARRAY_MAPPING;
  result.exactImages = network.imageinputshapemapping() == Network::RANK4_IMAGE_MAPPING;
  LayerWeightReader weights;
  result.layers.reserve(static_cast<std::size_t>(network.layers_size()));
  for (const Layer& layer : network.layers()) {
    result.layers.push_back(Within([&] { return Title(layer); }, [&] { return ReadLayer(layer, weights); }));
  }
  return result;
}

}  // namespace ulmora::engine::package
