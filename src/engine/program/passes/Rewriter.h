#pragma once
// The tools of the passes: who produces a value and how often it is used, kept up to date while operations are taken
// out and put back. Every edit costs time in proportion to the operations that it touches, so that a pass is linear in
// the program.

#include "engine/program/Program.h"

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace ulmora::engine::program {

/// Operation behind the parameter's name, none if the argument is absent. For parameters that are not variadic.
[[nodiscard]] std::optional<ValueId> Argument(const Operation& operation, std::string_view parameter);

/// Sets the argument of one parameter.
void SetArgument(Operation& operation, std::string_view parameter, ValueId id);

/// A new operation with the results of `root` in its place, and arguments by parameter name.
[[nodiscard]] Operation MakeOperation(std::string_view key, const Operation& root,
                                      const std::vector<std::pair<std::string_view, ValueId>>& arguments);

/// The value of a float constant with a single element.
[[nodiscard]] std::optional<double> FloatScalar(const Program& program, ValueId id);

class Rewriter {
 public:
  explicit Rewriter(Program& program);

  [[nodiscard]] const Program& program() const noexcept { return program_; }
  [[nodiscard]] const Shape& ShapeOf(ValueId id) const { return program_.at(id).type.shape; }

  /// Number of positions in the list of operations, those of removed operations included.
  [[nodiscard]] std::size_t size() const noexcept { return program_.operations.size(); }
  /// The operation at a position, null if it was removed.
  [[nodiscard]] const Operation* At(std::size_t position) const;
  /// Where the value is computed; none for program inputs and constants.
  [[nodiscard]] std::optional<std::size_t> PositionOf(ValueId id) const;

  /// Operands that are this value, plus one for each time that it is a program output.
  [[nodiscard]] std::size_t UseCount(ValueId id) const { return uses_[static_cast<std::size_t>(id)]; }
  [[nodiscard]] bool IsOutput(ValueId id) const { return isOutput_[static_cast<std::size_t>(id)]; }

  /// The operation that computes the value, if it is one of `key`; null otherwise.
  [[nodiscard]] const Operation* Producer(ValueId id, std::string_view key) const;
  /// The same if, moreover, the value is used exactly `uses` times and is no program output: then the operation
  /// vanishes when these uses do.
  [[nodiscard]] const Operation* Inner(ValueId id, std::string_view key, std::size_t uses = 1) const;

  [[nodiscard]] ValueId AddConstant(Tensor tensor);

  /// Takes the operation out and leaves its position empty.
  Operation Take(std::size_t position);
  /// Puts an operation at an empty position.
  void Put(std::size_t position, Operation operation);
  /// Puts `operation` where another one is, and takes out those that only served the old one.
  void Replace(std::size_t position, Operation operation);

  /// Closes the gaps. The last thing that a pass does.
  void Finish();

 private:
  void Count(const Operation& operation, bool add);
  void RemoveUnused(const Operation& released);

  Program& program_;
  std::vector<std::size_t> uses_;
  std::vector<bool> isOutput_;
  std::vector<std::optional<std::size_t>> producer_;
};

}  // namespace ulmora::engine::program
