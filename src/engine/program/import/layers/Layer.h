#pragma once
// What the translation of one layer works with: the layer's parameters, its blobs, and the program to which it appends.

#include "engine/package/ModelSource.h"
#include "engine/program/Program.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace ulmora::engine::program::layers {

/// A blob and how its value stands for it.
struct Blob {
  ValueId value = 0;
  std::size_t rank = 0;          ///< of the value
  bool withoutSequence = false;  ///< the blob has one more dimension in front, of size 1

  [[nodiscard]] std::size_t LogicalRank() const noexcept { return rank + (withoutSequence ? 1 : 0); }
};

using Blobs = std::unordered_map<std::string, Blob>;

/// An operand of an emitted operation: a value, several of them, or a constant.
class Argument {
 public:
  Argument(ValueId value) : operand_(Operands{value}) {}               // NOLINT: implicit for brevity
  Argument(const Blob& blob) : Argument(blob.value) {}                 // NOLINT
  Argument(Operands values) : operand_(std::move(values)) {}           // NOLINT
  Argument(Tensor constant) : operand_(std::move(constant)) {}         // NOLINT
  Argument(const char* text) : operand_(Tensor::Text(text)) {}         // NOLINT
  Argument(const std::string& text) : operand_(Tensor::Text(text)) {}  // NOLINT

  [[nodiscard]] const std::variant<Operands, Tensor>& operand() const noexcept { return operand_; }

 private:
  std::variant<Operands, Tensor> operand_;
};

using Arguments = std::vector<std::pair<std::string_view, Argument>>;

/// One layer during its translation.
class Layer {
 public:
  Layer(const package::SourceLayer& source, Program& program, Blobs& blobs)
      : source_(source), program_(program), blobs_(blobs) {}

  /// Throws Error(Translate) "<kind> layer '<name>': <message>".
  [[noreturn]] void Fail(const std::string& message) const;

  [[nodiscard]] const std::string& kind() const noexcept { return source_.kind; }

  // Parameters, as the reader hands them up. Asking for one that the kind of layer does not have is a programming
  // error.
  [[nodiscard]] bool Has(std::string_view parameter) const;
  [[nodiscard]] const Tensor& Weights(std::string_view parameter) const;  ///< Fails if they are absent
  [[nodiscard]] std::int64_t Int(std::string_view parameter) const;
  [[nodiscard]] float Float(std::string_view parameter) const;
  [[nodiscard]] float FloatOr(std::string_view parameter, float whatZeroMeans) const;
  [[nodiscard]] bool Bool(std::string_view parameter) const;
  [[nodiscard]] const std::string& Text(std::string_view parameter) const;
  [[nodiscard]] std::vector<std::int32_t> Ints(std::string_view parameter) const;
  [[nodiscard]] std::vector<bool> Bools(std::string_view parameter) const;
  /// Two sizes, `fallback` for both if there are none. Fails for another number.
  [[nodiscard]] std::vector<std::int32_t> Pair(std::string_view parameter, std::int32_t fallback) const;
  /// Borders [top, bottom, left, right], zero if there are none. Fails for another number.
  [[nodiscard]] std::vector<std::int32_t> Borders(std::string_view parameter) const;

  // Blobs.
  /// Fails unless the layer has `least` to `most` inputs and `outputs` outputs.
  void Require(std::size_t least, std::size_t most, std::size_t outputs = 1) const;
  [[nodiscard]] std::size_t InputCount() const noexcept { return source_.inputs.size(); }
  [[nodiscard]] std::size_t OutputCount() const noexcept { return source_.outputs.size(); }
  /// Fails if the blob is not known before this layer.
  [[nodiscard]] Blob Input(std::size_t index = 0) const;
  /// The same blob with all its dimensions as the network counts them.
  [[nodiscard]] Blob Full(const Blob& blob);
  [[nodiscard]] Blob FullInput(std::size_t index = 0) { return Full(Input(index)); }
  /// Fails if the blob's value has less dimensions.
  void RequireRank(const Blob& blob, std::size_t least) const;
  /// The blob as [N, C, H, W]: all dimensions before those three are one.
  [[nodiscard]] ValueId Planes(const Blob& blob);
  /// The blob whose last three dimensions are those of `planes` and whose others are those of `like`.
  [[nodiscard]] Blob FromPlanes(const Blob& like, ValueId planes);
  /// The rank that the layer says its output has. Fails if it does not.
  [[nodiscard]] std::size_t DeclaredRank() const;
  /// The elements of the blob where a layer before loads them; else null.
  [[nodiscard]] const Tensor* KnownValue(const Blob& blob) const;
  /// Size of the blob's last dimension, or kUnknownDim where it follows from other sizes.
  [[nodiscard]] std::int64_t KnownLastDim(const Blob& blob) const;

  // Emission.
  /// Appends an operation with one result.
  ValueId Emit(std::string_view operation, Arguments arguments);
  std::vector<ValueId> EmitSeveral(std::string_view operation, Arguments arguments, std::size_t results);
  /// A constant value.
  ValueId Constant(Tensor tensor);
  /// A blob of numbers that stand for sizes or indices, as int32.
  ValueId Whole(const Blob& blob);
  /// The only element of such a blob, as an int32 of rank 0.
  ValueId WholeScalar(const Blob& blob);
  /// Truth values or integers as a blob of float32.
  ValueId AsFloats(ValueId value);
  /// Sizes of dimensions [begin, end) of a value, as a vector of int32.
  ValueId Sizes(ValueId value, std::size_t begin, std::size_t end);
  /// Vectors of sizes one after another.
  ValueId JoinedSizes(Operands vectors);
  /// Blobs have at least one dimension: a single number becomes a vector.
  void SetOutput(Blob blob, std::size_t index = 0);

 private:
  [[nodiscard]] const Tensor& Find(std::string_view parameter) const;
  ValueId AddValue(Value value);

  const package::SourceLayer& source_;
  Program& program_;
  Blobs& blobs_;
};

/// Sets the output to `value`, which has the dimensions of the first input.
void SetLikeInput(Layer& layer, ValueId value);

/// What elementwise layers make of all their inputs.
[[nodiscard]] Blob BroadcastOf(const std::vector<Blob>& blobs, ValueId value);

/// "axis" for operations that take one.
[[nodiscard]] inline Argument Axis(std::int64_t axis) {
  return Tensor::Int(static_cast<std::int32_t>(axis));
}

}  // namespace ulmora::engine::program::layers
