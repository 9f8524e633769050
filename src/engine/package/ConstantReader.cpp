#include "engine/package/ConstantReader.h"

#include "engine/Limits.h"
#include "engine/package/ElementDecoding.h"
#include "engine/package/ImmediateValue.h"
#include "engine/package/Text.h"
#include "schema/Mil.pb.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace ulmora::engine::package {
namespace {

[[noreturn]] void Fail(const std::string& message) {
  throw Error(Stage::Open, message);
}

ElementType ElementOf(coreml::DataType type) {
  static constexpr std::pair<coreml::DataType, ElementType> kTypes[] = {
      {coreml::BOOL, ElementType::Bool},
      {coreml::STRING, ElementType::String},
      {coreml::FLOAT16, ElementType::Float16},
      {coreml::FLOAT32, ElementType::Float32},
      {coreml::FLOAT64, ElementType::Float64},
      {coreml::BFLOAT16, ElementType::BFloat16},
      {coreml::FLOAT8E4M3FN, ElementType::Float8E4M3FN},
      {coreml::FLOAT8E5M2, ElementType::Float8E5M2},
      {coreml::INT4, ElementType::Int4},
      {coreml::INT8, ElementType::Int8},
      {coreml::INT16, ElementType::Int16},
      {coreml::INT32, ElementType::Int32},
      {coreml::INT64, ElementType::Int64},
      {coreml::UINT1, ElementType::UInt1},
      {coreml::UINT2, ElementType::UInt2},
      {coreml::UINT3, ElementType::UInt3},
      {coreml::UINT4, ElementType::UInt4},
      {coreml::UINT6, ElementType::UInt6},
      {coreml::UINT8, ElementType::UInt8},
      {coreml::UINT16, ElementType::UInt16},
      {coreml::UINT32, ElementType::UInt32},
      {coreml::UINT64, ElementType::UInt64},
  };
  const auto* found =
      std::find_if(std::begin(kTypes), std::end(kTypes), [&](const auto& entry) { return entry.first == type; });
  if (found == std::end(kTypes)) Fail("unknown element type number " + std::to_string(static_cast<int>(type)));
  return found->second;
}

std::int64_t SizeOf(const coreml::Dimension& dimension) {
  if (dimension.has_unknown()) return kUnknownDim;
  if (!dimension.has_constant()) Fail("a dimension has neither a size nor is it marked as unknown");
  const std::uint64_t size = dimension.constant().size();
  if (std::cmp_greater(size, limits::kMaxTensorElements)) {
    Fail("a dimension has size " + std::to_string(size) + ", expected at most " +
         std::to_string(limits::kMaxTensorElements));
  }
  return static_cast<std::int64_t>(size);
}

/// Bytes that the elements take once decoded.
std::int64_t DecodedBytes(const TensorType& type, const coreml::TensorValue* immediate) {
  const std::int64_t count = ElementCount(type.shape);
  switch (StorageOf(type.element)) {
    case Storage::Float:
    case Storage::Int:
      return count * 4;
    case Storage::Bool:
      return count;
    case Storage::String:
      break;
  }
  std::int64_t bytes = count * static_cast<std::int64_t>(sizeof(std::string));
  if (immediate == nullptr) return bytes;
  for (const std::string& text : immediate->strings().values()) bytes += static_cast<std::int64_t>(text.size());
  return bytes;
}

}  // namespace

TensorType ReadTensorType(const coreml::TensorType& type) {
  const int count = type.dimensions_size();
  const bool rankKnown = type.rank() != -1;
  if (rankKnown && type.rank() != count) {
    Fail("a tensor type of rank " + std::to_string(type.rank()) + " has " + std::to_string(count) + " dimensions");
  }
  if (count > limits::kMaxRank) {
    Fail("a tensor type has rank " + std::to_string(count) + ", expected at most " + std::to_string(limits::kMaxRank));
  }
  TensorType result{ElementOf(type.datatype()), {}, rankKnown};
  if (!rankKnown) return result;
  for (const coreml::Dimension& dimension : type.dimensions()) result.shape.push_back(SizeOf(dimension));
  return result;
}

const char* KindOf(const coreml::ValueType& type) {
  switch (type.type_case()) {
    case coreml::ValueType::kTensorType:
      return "tensor";
    case coreml::ValueType::kListType:
      return "list";
    case coreml::ValueType::kTupleType:
      return "tuple";
    case coreml::ValueType::kDictionaryType:
      return "dictionary";
    case coreml::ValueType::kStateType:
      return "state";
    default:
      return "value without a type";
  }
}

Tensor ConstantReader::Read(const coreml::Value& value) {
  if (!value.type().has_tensortype()) Fail("is a " + std::string(KindOf(value.type())) + ", expected a tensor");
  const TensorType type = ReadTensorType(value.type().tensortype());
  if (!type.rankKnown || !IsStatic(type.shape)) Fail("is a constant whose shape is not known");
  static_cast<void>(ElementCount(type.shape));  // refuses absurd shapes before anything is looked up
  switch (value.value_case()) {
    case coreml::Value::kBlobFileValue:
      return ReadRecord(value.blobfilevalue().filename(), value.blobfilevalue().offset(), type);
    case coreml::Value::kImmediateValue: {
      if (!value.immediatevalue().has_tensor()) Fail("has no tensor value although its type is one");
      const coreml::TensorValue& immediate = value.immediatevalue().tensor();
      Account(DecodedBytes(type, &immediate));
      return DecodeImmediate(immediate, type);
    }
    default:
      Fail("has a type but no value");
  }
}

Tensor ConstantReader::ReadRecord(const std::string& fileName, std::uint64_t offset, const TensorType& type) {
  const WeightFile& file = FileOf(fileName);
  const std::span<const std::byte> bytes = file.Record(offset, type.element, type.shape);
  const RecordKey key{&file, offset, type.element};
  const auto known = records_.find(key);
  // The record's size was checked against this shape, so that it can only be the same elements in another shape.
  if (known != records_.end() && known->second.count() == ElementCount(type.shape)) {
    return known->second.shape() == type.shape ? known->second : known->second.Reshaped(type.shape);
  }
  Account(type);
  Tensor tensor = DecodeElements(bytes, type.element, type.shape);
  records_.insert_or_assign(key, tensor);
  return tensor;
}

const WeightFile& ConstantReader::FileOf(const std::string& name) {
  const std::filesystem::path path = bundle_.WeightFile(name).lexically_normal();
  const auto known = files_.find(path);
  if (known != files_.end()) return known->second;
  return files_.try_emplace(path, path).first->second;
}

void ConstantReader::Account(const TensorType& type) {
  Account(DecodedBytes(type, nullptr));
}

void ConstantReader::Account(std::int64_t bytes) {
  if (bytes > maxBytes_ - bytesTaken_) {
    throw Error(Stage::Load, "constants of more than " + std::to_string(maxBytes_) + " bytes");
  }
  bytesTaken_ += bytes;
}

}  // namespace ulmora::engine::package
