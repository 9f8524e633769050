#include "engine/program/passes/Expression.h"

#include "engine/program/OpRegistry.h"

#include <cmath>

namespace ulmora::engine::program {
namespace {

/// Nested products of activations are at most four deep; packages may nest thousands.
constexpr int kMaxDepth = 6;

const Operation* InnerProduct(const Rewriter& rewriter, ValueId id) {
  const Operation* product = rewriter.Inner(id, "mul");
  return product != nullptr ? product : rewriter.Inner(id, "real_div");
}

void Multiply(const Rewriter& rewriter, ValueId id, int depth, Product& product);

void MultiplyOperands(const Rewriter& rewriter, const Operation& operation, ValueId self, int depth, Product& product) {
  const ValueId x = *Argument(operation, "x");
  const ValueId y = *Argument(operation, "y");
  if (operation.definition->key == "mul") {
    Multiply(rewriter, x, depth, product);
    Multiply(rewriter, y, depth, product);
    return;
  }
  const std::optional<Rounded> divisor = RoundedScalar(rewriter.program(), y);
  if (divisor && divisor->value != 0.0) {
    product.scale = product.scale / *divisor;
    Multiply(rewriter, x, depth, product);
  } else {
    product.factors.push_back(self);
  }
}

void Multiply(const Rewriter& rewriter, ValueId id, int depth, Product& product) {
  const std::optional<Rounded> scalar = RoundedScalar(rewriter.program(), id);
  const Operation* inner = depth < kMaxDepth ? InnerProduct(rewriter, id) : nullptr;
  if (scalar) {
    product.scale = product.scale * *scalar;
  } else if (inner != nullptr) {
    MultiplyOperands(rewriter, *inner, id, depth + 1, product);
  } else {
    product.factors.push_back(id);
  }
}

/// The constant and the other operand of a commutative operation.
struct ConstantAndOther {
  Rounded constant;
  ValueId other = 0;
};

std::optional<ConstantAndOther> SplitConstant(const Rewriter& rewriter, const Operation& operation) {
  const ValueId x = *Argument(operation, "x");
  const ValueId y = *Argument(operation, "y");
  if (const auto constant = RoundedScalar(rewriter.program(), y)) return ConstantAndOther{*constant, x};
  if (const auto constant = RoundedScalar(rewriter.program(), x)) return ConstantAndOther{*constant, y};
  return std::nullopt;
}

/// Half precision has 11 bits, and converters round once. Of single precision a few last places: converters compute in
/// it.
double RoundingOf(ElementType element) noexcept {
  constexpr double kHalf = 0x1p-11;
  constexpr double kSingle = 4 * 0x1p-24;
  return element == ElementType::Float16 ? kHalf : kSingle;
}

}  // namespace

std::optional<Rounded> RoundedScalar(const Program& program, ValueId id) {
  const std::optional<double> value = FloatScalar(program, id);
  return value ? std::optional(Rounded{*value, RoundingOf(program.at(id).constant->element())}) : std::nullopt;
}

bool Near(const Rounded& number, double expected) noexcept {
  return std::abs(number.value - expected) <= number.share * std::abs(expected);
}

Product ReadProduct(const Rewriter& rewriter, const Operation& root) {
  Product product;
  MultiplyOperands(rewriter, root, root.results.front(), 0, product);
  return product;
}

Product ReadProduct(const Rewriter& rewriter, ValueId id) {
  Product product;
  Multiply(rewriter, id, 0, product);
  return product;
}

std::optional<Affine> ReadAffine(const Rewriter& rewriter, ValueId id) {
  const Operation* sum = rewriter.Inner(id, "add");
  const bool subtracts = sum == nullptr;
  if (subtracts) sum = rewriter.Inner(id, "sub");
  if (sum == nullptr) return std::nullopt;
  const std::optional<ConstantAndOther> parts = SplitConstant(rewriter, *sum);
  if (!parts) return std::nullopt;
  Affine affine;
  affine.offset = parts->constant;
  if (subtracts) {
    const bool isSubtrahend = *Argument(*sum, "x") == parts->other;
    Rounded& negated = isSubtrahend ? affine.offset : affine.slope;
    negated = -negated;
  }
  const Product product = ReadProduct(rewriter, parts->other);
  const bool isScaled = product.factors.size() == 1;
  if (isScaled) affine.slope = affine.slope * product.scale;
  affine.term = isScaled ? product.factors.front() : parts->other;
  return affine;
}

std::optional<int> ReadPower(const Rewriter& rewriter, ValueId id, ValueId x) {
  if (id == x) return 1;
  if (const Operation* pow = rewriter.Inner(id, "pow")) {
    const std::optional<double> exponent = FloatScalar(rewriter.program(), *Argument(*pow, "y"));
    const bool isWhole = exponent && (*exponent == 2.0 || *exponent == 3.0);
    return isWhole && *Argument(*pow, "x") == x ? std::optional(static_cast<int>(*exponent)) : std::nullopt;
  }
  if (const Operation* square = rewriter.Inner(id, "square")) {
    return *Argument(*square, "x") == x ? std::optional(2) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace ulmora::engine::program
