#pragma once
// Reads products and sums of a program as the formulas that they are, whatever the order and nesting of their terms.

#include "engine/program/Program.h"
#include "engine/program/passes/Rewriter.h"

#include <optional>
#include <string_view>
#include <vector>

namespace ulmora::engine::program {

/// scale * factors[0] * factors[1] * ...
struct Product {
  double scale = 1.0;
  std::vector<ValueId> factors;
};

/// slope * term + offset
struct Affine {
  double slope = 1.0;
  ValueId term = 0;
  double offset = 0.0;
};

/// The product that mul (and real_div by a constant) form at `root`, read through products that serve nothing else. A
/// few levels deep; what lies deeper counts as a factor.
[[nodiscard]] Product ReadProduct(const Rewriter& rewriter, const Operation& root);

/// `id` as a product: the one at its producer if that serves nothing else, else the value itself.
[[nodiscard]] Product ReadProduct(const Rewriter& rewriter, ValueId id);

/// `id` as slope * term + offset if it is an add or sub with a constant that serves nothing else.
[[nodiscard]] std::optional<Affine> ReadAffine(const Rewriter& rewriter, ValueId id);

/// `id` as a power of x: 3 for x * x * x or pow(x, 3), 1 for x itself; none if it is none.
[[nodiscard]] std::optional<int> ReadPower(const Rewriter& rewriter, ValueId id, ValueId x);

/// True if both differ by no more than half-precision rounding of constants explains.
[[nodiscard]] bool Near(double value, double expected) noexcept;

}  // namespace ulmora::engine::program
