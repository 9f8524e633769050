#pragma once
// Constants of a program, wherever they are kept: in the message itself or in a weight file.

#include "engine/Limits.h"
#include "engine/Tensor.h"
#include "engine/package/Bundle.h"
#include "engine/package/WeightFile.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <tuple>

namespace ulmora::coreml {
class TensorType;
class TensorValue;
class Value;
class ValueType;
}  // namespace ulmora::coreml

namespace ulmora::engine::package {

/// The declared type. Throws Error(Open) if an element type or a dimension is missing or impossible, or if the rank
/// contradicts the dimensions or is above limits::kMaxRank.
[[nodiscard]] TensorType ReadTensorType(const coreml::TensorType& type);

/// "tensor", "list", ... for messages.
[[nodiscard]] const char* KindOf(const coreml::ValueType& type);

/// Decodes constants and keeps account of them. Constants that refer to the same record share one tensor.
class ConstantReader {
 public:
  /// `maxBytes` bounds the elements of all constants together, decoded.
  explicit ConstantReader(const Bundle& bundle, std::int64_t maxBytes = limits::kMaxConstantBytes)
      : bundle_(bundle), maxBytes_(maxBytes) {}

  /// The tensor that `value` stands for. Throws Error(Open) for a value that is no tensor, has no static shape or other
  /// elements than its type says; Error(Load) for a damaged or missing weight file, and for constants that together
  /// pass the bound, which is checked before memory is taken.
  [[nodiscard]] Tensor Read(const coreml::Value& value);

  /// The tensor of this static type in the record at `offset` of the weight file of that name. Throws as Read does.
  [[nodiscard]] Tensor ReadRecord(const std::string& fileName, std::uint64_t offset, const TensorType& type);

  /// Takes the elements of a constant of this static type, which the caller decodes itself, into the account (strings
  /// without their characters). Throws Error(Load) if the bound is passed, Error(Translate) for an absurd shape.
  void Account(const TensorType& type);

 private:
  using RecordKey = std::tuple<const WeightFile*, std::uint64_t, ElementType>;

  const WeightFile& FileOf(const std::string& name);
  void Account(std::int64_t bytes);

  const Bundle& bundle_;
  std::int64_t maxBytes_;
  std::int64_t bytesTaken_ = 0;
  std::map<std::filesystem::path, WeightFile> files_;
  std::map<RecordKey, Tensor> records_;
};

}  // namespace ulmora::engine::package
