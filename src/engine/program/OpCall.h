#pragma once
// What an operation's shape rule and evaluation see of one use of it: operands by parameter name, defaults filled in.

#include "engine/Tensor.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ulmora::engine::program {

struct OpDefinition;
struct Operation;
struct Program;

/// One use of an operation. Built from a program (constants known, other values by type alone) or, for evaluation and
/// tests, from tensors. Accessors take parameter names; a name that the definition does not have is a programming error
/// (std::logic_error).
class OpCall {
 public:
  /// An operand: its type, and its value where it is known.
  struct Operand {
    TensorType type;
    const Tensor* value = nullptr;  ///< not owned
  };

  /// Both constructors Fail if a required parameter has no operand or if one that is not variadic has several.
  /// `declared` is what DeclaredShape answers from: the types of the results, where the call belongs to a program.
  OpCall(const OpDefinition& definition, std::string_view name, int opset, std::vector<std::vector<Operand>> operands,
         std::vector<TensorType> declared = {});
  /// The call that `operation` makes in `program`.
  OpCall(const Program& program, const Operation& operation);

  [[nodiscard]] const OpDefinition& definition() const noexcept { return *definition_; }
  [[nodiscard]] int opset() const noexcept { return opset_; }

  /// True if the operand is given (a default does not count).
  [[nodiscard]] bool Has(std::string_view parameter) const;
  /// Number of operands of a variadic parameter.
  [[nodiscard]] std::size_t Count(std::string_view parameter) const;
  /// Type of the operand. Fails if it is absent.
  [[nodiscard]] const TensorType& Type(std::string_view parameter, std::size_t index = 0) const;
  [[nodiscard]] const Shape& ShapeOf(std::string_view parameter, std::size_t index = 0) const;
  /// Value of the operand, or its default. Fails if it is absent without default, or not a constant.
  [[nodiscard]] const Tensor& Value(std::string_view parameter, std::size_t index = 0) const;
  /// True if Value would succeed.
  [[nodiscard]] bool IsKnown(std::string_view parameter, std::size_t index = 0) const;

  /// Value as a scalar (one element of whatever rank) or as a vector. Numbers convert between float and int; Fail if
  /// the tensor holds another kind or another count.
  [[nodiscard]] std::int64_t Int(std::string_view parameter) const;
  [[nodiscard]] float Float(std::string_view parameter) const;
  [[nodiscard]] bool Bool(std::string_view parameter) const;
  [[nodiscard]] std::string Text(std::string_view parameter) const;
  [[nodiscard]] std::vector<std::int64_t> Ints(std::string_view parameter) const;
  [[nodiscard]] std::vector<bool> Bools(std::string_view parameter) const;

  /// `axis` counted from the front; Fails if it is outside [-rank, rank).
  [[nodiscard]] std::int64_t Axis(std::int64_t axis, std::size_t rank) const;

  /// Shape of a result as the package declares it; none if it leaves dimensions open or the call stands in no program.
  /// For sizes that are only known up to rounding, such as the scaled ones of an upsampling.
  [[nodiscard]] std::optional<Shape> DeclaredShape(std::size_t result = 0) const;

  /// Throws Error(Translate) "<key> '<name>': <message>".
  [[noreturn]] void Fail(const std::string& message) const;

 private:
  [[nodiscard]] const Operand* Find(std::string_view parameter, std::size_t index) const;
  [[nodiscard]] const std::optional<Tensor>& Fallback(std::string_view parameter) const;
  [[nodiscard]] const Tensor& Scalar(std::string_view parameter) const;
  [[nodiscard]] const Tensor& Vector(std::string_view parameter) const;
  [[nodiscard]] std::vector<std::int64_t> WholeNumbers(std::string_view parameter, const Tensor& tensor) const;
  [[noreturn]] void FailKind(std::string_view parameter, const Tensor& tensor, std::string_view expected) const;

  const OpDefinition* definition_;
  std::string name_;
  int opset_;
  std::vector<std::vector<Operand>> operands_;
  std::vector<TensorType> declared_;
};

}  // namespace ulmora::engine::program
