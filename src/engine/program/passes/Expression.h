#pragma once
// Reads products and sums of a program as the formulas that they are, whatever the order and nesting of their terms.

#include "engine/program/Program.h"
#include "engine/program/passes/Rewriter.h"

#include <optional>
#include <string_view>
#include <vector>

namespace ulmora::engine::program {

/// A number that constants make, and by which share of it their rounding may have moved it from what was meant.
struct Rounded {
  double value = 1.0;
  double share = 0.0;

  friend Rounded operator*(const Rounded& a, const Rounded& b) { return {a.value * b.value, a.share + b.share}; }
  friend Rounded operator/(const Rounded& a, const Rounded& b) { return {a.value / b.value, a.share + b.share}; }
  friend Rounded operator-(const Rounded& a) { return {-a.value, a.share}; }
};

/// The value of a float constant with a single element; how far it may be off follows from the type that it is stored
/// in.
[[nodiscard]] std::optional<Rounded> RoundedScalar(const Program& program, ValueId id);

/// True if rounding explains the difference of the two.
[[nodiscard]] bool Near(const Rounded& number, double expected) noexcept;

/// scale * factors[0] * factors[1] * ...
struct Product {
  Rounded scale;
  std::vector<ValueId> factors;
};

/// slope * term + offset
struct Affine {
  Rounded slope;
  ValueId term = 0;
  Rounded offset;
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

}  // namespace ulmora::engine::program
