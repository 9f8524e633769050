// Given an activation written out as primitive operations, result: the one operation that computes it.
//
//   x * sigmoid(x)                                        silu
//   x * sigmoid(1.702 x)                                  gelu, SIGMOID_APPROXIMATION
//   x/2 * (1 + erf(x / sqrt(2)))                          gelu, EXACT
//   x/2 * (1 + tanh(sqrt(2/pi) (x + 0.044715 x^3)))       gelu, TANH_APPROXIMATION
//   x * tanh(softplus(x))                                 mish
//   x * sigmoid_hard(x), t * sigmoid_hard(t) with t = thresholded_relu(x), x * relu6(x + 3) / 6
//                                                         hard_swish
//   relu6(x + 3) / 6                                      sigmoid_hard
//   maximum(x, 0), threshold(x, 0), clip(x, 0, inf)       relu
//   clip(x, 0, 6), minimum(relu(x), 6)                    relu6
//   maximum(x, a x) with 0 < a < 1                        leaky_relu
//
// Factors may come in any order and nesting, constants in the precision of their type. Operations between x and the
// result must serve nothing else: otherwise they stay, and nothing would be won.

#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/passes/Expression.h"
#include "engine/program/passes/Pass.h"
#include "engine/program/passes/Rewriter.h"

#include <array>
#include <cmath>
#include <numbers>
#include <optional>
#include <utility>

namespace ulmora::engine::program {
namespace {

class Recognizer {
 public:
  explicit Recognizer(Program& program) : rewriter_(program) {}

  void Run() {
    for (std::size_t position = 0; position < rewriter_.size(); ++position) {
      const Operation* root = rewriter_.At(position);
      if (root == nullptr || !root->fused.empty()) continue;
      std::optional<Operation> found = Recognize(*root);
      if (found && KeepsShape(*found)) rewriter_.Replace(position, std::move(*found));
    }
    rewriter_.Finish();
  }

 private:
  /// A constant of higher rank, or one that repeats x, would have made another shape of it.
  [[nodiscard]] bool KeepsShape(const Operation& operation) const {
    const TensorType& x = rewriter_.program().at(*Argument(operation, "x")).type;
    return StorageOf(x.element) == Storage::Float && x.shape == rewriter_.ShapeOf(operation.results.front());
  }

  std::optional<Operation> Recognize(const Operation& root) {
    const std::string_view key = root.definition->key;
    if (key == "mul" || key == "real_div") return RecognizeProduct(root);
    if (key == "maximum") return RecognizeMaximum(root);
    if (key == "minimum") return RecognizeMinimum(root);
    if (key == "threshold") return RecognizeThreshold(root);
    if (key == "clip") return RecognizeClip(root);
    return std::nullopt;
  }

  ValueId Scalar(double value) { return rewriter_.AddConstant(Tensor::Float(static_cast<float>(value))); }

  Operation HardSwish(const Operation& root, ValueId x, ValueId alpha, ValueId beta) {
    return MakeOperation("hard_swish", root, {{"x", x}, {"alpha", alpha}, {"beta", beta}});
  }

  Operation Gelu(const Operation& root, ValueId x, const char* mode) {
    return MakeOperation("gelu", root, {{"x", x}, {"mode", rewriter_.AddConstant(Tensor::Text(mode))}});
  }

  std::optional<Operation> RecognizeProduct(const Operation& root) {
    const Product product = ReadProduct(rewriter_, root);
    if (product.factors.size() == 1) return RecognizeSigmoidHard(root, product);
    if (product.factors.size() != 2) return std::nullopt;
    for (const bool swapped : {false, true}) {
      const ValueId x = product.factors[swapped ? 1 : 0];
      const ValueId gate = product.factors[swapped ? 0 : 1];
      if (auto found = RecognizeGate(root, product.scale, x, gate)) return found;
    }
    return std::nullopt;
  }

  /// root = scale * x * gate
  std::optional<Operation> RecognizeGate(const Operation& root, const Rounded& scale, ValueId x, ValueId gate) {
    if (scale.value == 1.0) {
      if (auto found = RecognizeSigmoidGate(root, x, gate)) return found;
      if (auto found = RecognizeMish(root, x, gate)) return found;
      if (auto found = RecognizeHardGate(root, x, gate)) return found;
    }
    if (Near(scale, 1.0 / 6.0) && IsRelu6OfShifted(x, gate)) {
      const ValueId alpha = Scalar(scale.value);
      return HardSwish(root, x, alpha, Scalar(0.5));
    }
    return RecognizeGelu(root, scale, x, gate);
  }

  std::optional<Operation> RecognizeSigmoidGate(const Operation& root, ValueId x, ValueId gate) {
    const Operation* sigmoid = rewriter_.Inner(gate, "sigmoid");
    if (sigmoid == nullptr) return std::nullopt;
    const ValueId inside = *Argument(*sigmoid, "x");
    if (inside == x) return MakeOperation("silu", root, {{"x", x}});
    const Product product = ReadProduct(rewriter_, inside);
    const bool isScaledX = product.factors.size() == 1 && product.factors.front() == x;
    if (!isScaledX || !Near(product.scale, 1.702)) return std::nullopt;
    return Gelu(root, x, "SIGMOID_APPROXIMATION");
  }

  std::optional<Operation> RecognizeMish(const Operation& root, ValueId x, ValueId gate) {
    const Operation* tanh = rewriter_.Inner(gate, "tanh");
    const Operation* softplus = tanh == nullptr ? nullptr : rewriter_.Inner(*Argument(*tanh, "x"), "softplus");
    if (softplus == nullptr || *Argument(*softplus, "x") != x) return std::nullopt;
    return MakeOperation("mish", root, {{"x", x}});
  }

  /// x * sigmoid_hard(x), where x may have been cut off where the gate is closed anyway.
  std::optional<Operation> RecognizeHardGate(const Operation& root, ValueId x, ValueId gate) {
    const Operation* hard = rewriter_.Inner(gate, "sigmoid_hard");
    if (hard == nullptr || *Argument(*hard, "x") != x) return std::nullopt;
    const ValueId alpha = *Argument(*hard, "alpha");
    const ValueId beta = *Argument(*hard, "beta");
    const Operation* cut = rewriter_.Inner(x, "thresholded_relu", 2);
    const std::optional<Rounded> threshold = cut == nullptr ? std::nullopt : RoundedArgument(*cut, "alpha");
    const std::optional<Rounded> slope = RoundedArgument(*hard, "alpha");
    const std::optional<Rounded> offset = RoundedArgument(*hard, "beta");
    const bool isKnown = threshold && slope && offset && slope->value > 0.0 && threshold->value != 0.0;
    if (isKnown && Near(-*offset / *slope / *threshold, 1.0)) {
      return HardSwish(root, *Argument(*cut, "x"), alpha, beta);
    }
    return HardSwish(root, x, alpha, beta);
  }

  [[nodiscard]] std::optional<Rounded> RoundedArgument(const Operation& operation, std::string_view parameter) const {
    return RoundedScalar(rewriter_.program(), *Argument(operation, parameter));
  }

  [[nodiscard]] std::optional<double> ScalarArgument(const Operation& operation, std::string_view parameter) const {
    return FloatScalar(rewriter_.program(), *Argument(operation, parameter));
  }

  /// relu6(x + 3), or with a clip of the same bounds
  [[nodiscard]] bool IsRelu6OfShifted(ValueId x, ValueId gate) const {
    const Operation* relu6 = rewriter_.Inner(gate, "relu6");
    if (relu6 == nullptr) return false;
    const std::optional<Affine> sum = ReadAffine(rewriter_, *Argument(*relu6, "x"));
    return sum && sum->term == x && sum->slope.value == 1.0 && sum->offset.value == 3.0;
  }

  /// relu6(x + 3) / 6
  std::optional<Operation> RecognizeSigmoidHard(const Operation& root, const Product& product) {
    const Operation* relu6 = rewriter_.Inner(product.factors.front(), "relu6");
    if (relu6 == nullptr || !Near(product.scale, 1.0 / 6.0)) return std::nullopt;
    const std::optional<Affine> sum = ReadAffine(rewriter_, *Argument(*relu6, "x"));
    if (!sum || sum->slope.value != 1.0 || sum->offset.value != 3.0) return std::nullopt;
    const ValueId alpha = Scalar(product.scale.value);
    return MakeOperation("sigmoid_hard", root, {{"x", sum->term}, {"alpha", alpha}, {"beta", Scalar(0.5)}});
  }

  /// scale * x * (slope * function + offset) with scale * slope = scale * offset = 1/2
  std::optional<Operation> RecognizeGelu(const Operation& root, const Rounded& scale, ValueId x, ValueId gate) {
    const std::optional<Affine> sum = ReadAffine(rewriter_, gate);
    if (!sum || !Near(scale * sum->offset, 0.5) || !Near(scale * sum->slope, 0.5)) return std::nullopt;
    if (const Operation* erf = rewriter_.Inner(sum->term, "erf")) {
      const Product inside = ReadProduct(rewriter_, *Argument(*erf, "x"));
      const bool isScaledX = inside.factors.size() == 1 && inside.factors.front() == x;
      if (isScaledX && Near(inside.scale, std::numbers::sqrt2 / 2.0)) return Gelu(root, x, "EXACT");
    } else if (const Operation* tanh = rewriter_.Inner(sum->term, "tanh")) {
      if (IsTanhArgument(x, *Argument(*tanh, "x"))) return Gelu(root, x, "TANH_APPROXIMATION");
    }
    return std::nullopt;
  }

  /// sqrt(2/pi) * (x + 0.044715 x^3), also with x factored out of the bracket
  [[nodiscard]] bool IsTanhArgument(ValueId x, ValueId id) const {
    const Product product = ReadProduct(rewriter_, id);
    if (!Near(product.scale, std::sqrt(2.0 / std::numbers::pi))) return false;
    if (product.factors.size() == 1) return IsCubicSum(x, product.factors.front());
    if (product.factors.size() != 2) return false;
    const bool xIsFirst = product.factors[0] == x;
    return (xIsFirst || product.factors[1] == x) && IsSquareSum(x, product.factors[xIsFirst ? 1 : 0]);
  }

  /// x + 0.044715 x^3
  [[nodiscard]] bool IsCubicSum(ValueId x, ValueId id) const {
    const Operation* add = rewriter_.Inner(id, "add");
    if (add == nullptr) return false;
    const ValueId first = *Argument(*add, "x");
    const ValueId second = *Argument(*add, "y");
    return (first == x && IsScaledPower(x, second, 3)) || (second == x && IsScaledPower(x, first, 3));
  }

  /// 1 + 0.044715 x^2
  [[nodiscard]] bool IsSquareSum(ValueId x, ValueId id) const {
    const Operation* add = rewriter_.Inner(id, "add");
    if (add == nullptr) return false;
    const ValueId first = *Argument(*add, "x");
    const ValueId second = *Argument(*add, "y");
    const auto isOne = [this](ValueId value) { return FloatScalar(rewriter_.program(), value) == 1.0; };
    return (isOne(first) && IsScaledPower(x, second, 2)) || (isOne(second) && IsScaledPower(x, first, 2));
  }

  /// 0.044715 x^exponent
  [[nodiscard]] bool IsScaledPower(ValueId x, ValueId id, int exponent) const {
    const Product product = ReadProduct(rewriter_, id);
    int total = 0;
    for (const ValueId factor : product.factors) {
      const std::optional<int> power = ReadPower(rewriter_, factor, x);
      if (!power) return false;
      total += *power;
    }
    return total == exponent && Near(product.scale, 0.044715);
  }

  std::optional<Operation> RecognizeMaximum(const Operation& root) {
    const std::array<ValueId, 2> operands = {*Argument(root, "x"), *Argument(root, "y")};
    for (const std::size_t i : {0U, 1U}) {
      const ValueId x = operands[i];
      const ValueId other = operands[1 - i];
      if (FloatScalar(rewriter_.program(), other) == 0.0) return MakeOperation("relu", root, {{"x", x}});
      if (rewriter_.Inner(other, "mul") == nullptr) continue;
      const Product product = ReadProduct(rewriter_, other);
      const bool isScaledX = product.factors.size() == 1 && product.factors.front() == x;
      if (isScaledX && product.scale.value > 0.0 && product.scale.value < 1.0) {
        return MakeOperation("leaky_relu", root, {{"x", x}, {"alpha", Scalar(product.scale.value)}});
      }
    }
    return std::nullopt;
  }

  std::optional<Operation> RecognizeMinimum(const Operation& root) {
    const std::array<ValueId, 2> operands = {*Argument(root, "x"), *Argument(root, "y")};
    for (const std::size_t i : {0U, 1U}) {
      const Operation* relu = rewriter_.Inner(operands[i], "relu");
      if (relu != nullptr && FloatScalar(rewriter_.program(), operands[1 - i]) == 6.0) {
        return MakeOperation("relu6", root, {{"x", *Argument(*relu, "x")}});
      }
    }
    return std::nullopt;
  }

  std::optional<Operation> RecognizeThreshold(const Operation& root) {
    if (ScalarArgument(root, "alpha") != 0.0) return std::nullopt;
    return MakeOperation("relu", root, {{"x", *Argument(root, "x")}});
  }

  std::optional<Operation> RecognizeClip(const Operation& root) {
    // The converters' "no bound" is the largest float32, rounded in one way or another.
    constexpr double kUnbounded = 3.4e38;
    const std::optional<double> beta = ScalarArgument(root, "beta");
    if (ScalarArgument(root, "alpha") != 0.0 || !beta) return std::nullopt;
    if (*beta >= kUnbounded) return MakeOperation("relu", root, {{"x", *Argument(root, "x")}});
    return *beta == 6.0 ? std::optional(MakeOperation("relu6", root, {{"x", *Argument(root, "x")}})) : std::nullopt;
  }

  Rewriter rewriter_;
};

}  // namespace

void RecognizeActivations(Program& program) {
  Recognizer(program).Run();
}

}  // namespace ulmora::engine::program
