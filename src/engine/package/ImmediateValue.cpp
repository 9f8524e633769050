#include "engine/package/ImmediateValue.h"

#include "engine/Error.h"
#include "engine/package/ElementDecoding.h"
#include "schema/Mil.pb.h"

#include <string>
#include <utility>

namespace ulmora::engine::package {
namespace {

void CheckCount(std::int64_t found, std::int64_t expected, const TensorType& type, const char* unit) {
  if (found == expected) return;
  throw Error(Stage::Open, "has " + std::to_string(found) + " " + unit + ", expected " + std::to_string(expected) +
                               " for " + std::string(NameOf(type.element)) + " " + ToString(type.shape));
}

template <typename Result, typename Source, typename Convert>
std::vector<Result> Elements(const Source& source, const TensorType& type, const Convert& convert) {
  CheckCount(source.size(), ElementCount(type.shape), type, "elements");
  std::vector<Result> values;
  values.reserve(static_cast<std::size_t>(source.size()));
  for (const auto& element : source) values.push_back(convert(element));
  return values;
}

Tensor FromBytes(const std::string& bytes, const TensorType& type) {
  CheckCount(static_cast<std::int64_t>(bytes.size()), PackedBytes(type.element, ElementCount(type.shape)), type,
             "bytes");
  return DecodeElements(std::as_bytes(std::span(bytes)), type.element, type.shape);
}

template <typename Source>
Tensor FromFloats(const Source& source, const TensorType& type) {
  const auto narrow = [](auto element) { return Narrowed(static_cast<double>(element)); };
  return Tensor::Floats(type.shape, Elements<float>(source, type, narrow), type.element);
}

template <typename Source>
Tensor FromInts(const Source& source, const TensorType& type) {
  const auto saturate = [](auto element) { return Saturated(element); };
  return Tensor::Ints(type.shape, Elements<std::int32_t>(source, type, saturate), type.element);
}

Tensor FromBools(const coreml::TensorValue::RepeatedBools& source, const TensorType& type) {
  const auto asByte = [](bool element) { return static_cast<std::uint8_t>(element); };
  return Tensor::Bools(type.shape, Elements<std::uint8_t>(source.values(), type, asByte));
}

Tensor FromStrings(const coreml::TensorValue::RepeatedStrings& source, const TensorType& type) {
  const auto copy = [](const std::string& element) { return element; };
  return Tensor::Strings(type.shape, Elements<std::string>(source.values(), type, copy));
}

const char* NameOfVariant(coreml::TensorValue::ValueCase variant) {
  using coreml::TensorValue;
  switch (variant) {
    case TensorValue::kFloats:
      return "floats";
    case TensorValue::kInts:
      return "ints";
    case TensorValue::kBools:
      return "bools";
    case TensorValue::kStrings:
      return "strings";
    case TensorValue::kLongInts:
      return "long ints";
    case TensorValue::kDoubles:
      return "doubles";
    case TensorValue::kBytes:
      return "bytes";
    default:
      return "nothing";
  }
}

}  // namespace

Tensor DecodeImmediate(const coreml::TensorValue& value, const TensorType& type) {
  using coreml::TensorValue;
  const auto variant = value.value_case();
  const Storage storage = StorageOf(type.element);
  const bool isNumber = storage == Storage::Float || storage == Storage::Int;
  if (variant == TensorValue::kBytes && isNumber) return FromBytes(value.bytes().values(), type);
  if (variant == TensorValue::kFloats && storage == Storage::Float) return FromFloats(value.floats().values(), type);
  if (variant == TensorValue::kDoubles && storage == Storage::Float) return FromFloats(value.doubles().values(), type);
  if (variant == TensorValue::kInts && storage == Storage::Int) return FromInts(value.ints().values(), type);
  if (variant == TensorValue::kLongInts && storage == Storage::Int) return FromInts(value.longints().values(), type);
  if (variant == TensorValue::kBools && storage == Storage::Bool) return FromBools(value.bools(), type);
  if (variant == TensorValue::kStrings && storage == Storage::String) return FromStrings(value.strings(), type);
  throw Error(Stage::Open, "holds " + std::string(NameOfVariant(variant)) + ", expected elements of type " +
                               std::string(NameOf(type.element)));
}

}  // namespace ulmora::engine::package
