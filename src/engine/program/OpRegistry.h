#pragma once
// The table of all operations: for each its name, its parameters with defaults, its shape rule and its reference
// evaluation. One family of operations per file in ops/; the CPU's lowering of each stands under the same key in
// cpu/lower.

#include "engine/Tensor.h"
#include "engine/program/OpCall.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace ulmora::engine::program {

enum class Presence : std::uint8_t { Required, Optional, Variadic };

/// One named parameter of an operation.
struct Parameter {
  std::string_view name;
  Presence presence = Presence::Required;
  bool mustBeConstant = false;       ///< must be known before the network runs
  std::optional<Tensor> fallback{};  ///< what an absent optional parameter means, where that is a fixed value
  bool typeOnly = false;             ///< only the operand's type is used: evaluation needs no value of it
};

/// One operation of the registry.
struct OpDefinition {
  std::string_view key;  ///< the name that packages use: "conv"
  std::vector<Parameter> parameters;

  /// Types of all results from the types (and constants) of the operands. All operand shapes are static. Throws through
  /// OpCall::Fail on impossible operands.
  std::vector<TensorType> (*infer)(const OpCall& call) = nullptr;

  /// Obviously correct, unoptimised evaluation; all operands have values but those of typeOnly parameters. Used for
  /// folding and as the oracle of tests, and at run time for the rare operations without a lowering of their own.
  std::vector<Tensor> (*evaluate)(const OpCall& call) = nullptr;

  /// True if evaluation may take as long as the product of operand and result elements (convolutions, pools, matrix
  /// products), false if their sum. Bounds what is folded.
  bool costly = false;

  /// Index of the parameter, or -1.
  [[nodiscard]] int IndexOf(std::string_view parameter) const noexcept;
};

/// The definition of that name, or null.
[[nodiscard]] const OpDefinition* FindOp(std::string_view key);

/// All definitions, sorted by key; the addresses are stable for the life of the process.
[[nodiscard]] std::span<const OpDefinition> AllOps();

}  // namespace ulmora::engine::program
