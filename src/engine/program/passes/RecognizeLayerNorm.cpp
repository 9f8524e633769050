// Given a normalisation over some axes written out as primitive operations, result: layer_norm.
//
//   mean = reduce_mean(x), d = x - mean, variance = reduce_mean(d^2)        all over the same axes, kept
//   y = d / sqrt(variance + eps), or d * rsqrt(variance + eps)              layer_norm(x)
//   y * gamma, then y + beta, constants with the sizes of the axes          layer_norm(x, gamma, beta)
//
// d may be computed twice, squares and roots be written as powers. Operations between x and the result must serve
// nothing else. A group normalisation contains the same pattern over the axes of a group.

#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/passes/Expression.h"
#include "engine/program/passes/Pass.h"
#include "engine/program/passes/Rewriter.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

namespace ulmora::engine::program {
namespace {

using Axes = std::vector<std::int64_t>;

/// 1 / sqrt(term + epsilon)
struct InverseRoot {
  ValueId term = 0;
  double epsilon = 0.0;
};

/// (x - mean(x))
struct Centred {
  ValueId x = 0;
  Axes axes;
};

class Recognizer {
 public:
  explicit Recognizer(Program& program) : rewriter_(program) {}

  void Run() {
    for (std::size_t position = 0; position < rewriter_.size(); ++position) {
      const Operation* root = rewriter_.At(position);
      if (root == nullptr || !root->fused.empty()) continue;
      std::optional<Operation> found = Recognize(*root);
      if (found) rewriter_.Replace(position, std::move(*found));
    }
    rewriter_.Finish();
  }

 private:
  std::optional<Operation> Recognize(const Operation& root) {
    const std::string_view key = root.definition->key;
    if (key == "real_div") {
      const std::optional<InverseRoot> divisor = ReadRoot(*Argument(root, "y"), "sqrt", 0.5);
      return divisor ? RecognizeCore(root, *Argument(root, "x"), *divisor) : std::nullopt;
    }
    if (key != "mul" && key != "add") return std::nullopt;
    for (const bool swapped : {false, true}) {
      const ValueId first = *Argument(root, swapped ? "y" : "x");
      const ValueId second = *Argument(root, swapped ? "x" : "y");
      if (auto found = AbsorbConstant(root, first, second)) return found;
      if (key != "mul") continue;
      const std::optional<InverseRoot> inverse = ReadRoot(second, "rsqrt", -0.5);
      if (auto found = inverse ? RecognizeCore(root, first, *inverse) : std::nullopt) return found;
    }
    return std::nullopt;
  }

  /// `id` as the root of a sum, by an operation `key` or as a power.
  [[nodiscard]] std::optional<InverseRoot> ReadRoot(ValueId id, std::string_view key, double exponent) const {
    InverseRoot root;
    ValueId inside = 0;
    if (const Operation* named = rewriter_.Inner(id, key)) {
      inside = *Argument(*named, "x");
      if (key == "rsqrt") root.epsilon = OpCall(rewriter_.program(), *named).Float("epsilon");
    } else if (const Operation* pow = rewriter_.Inner(id, "pow")) {
      if (FloatScalar(rewriter_.program(), *Argument(*pow, "y")) != exponent) return std::nullopt;
      inside = *Argument(*pow, "x");
    } else {
      return std::nullopt;
    }
    const std::optional<Affine> sum = ReadAffine(rewriter_, inside);
    if (sum && sum->slope.value != 1.0) return std::nullopt;
    root.term = sum ? sum->term : inside;
    root.epsilon += sum ? sum->offset.value : 0.0;
    return root;
  }

  std::optional<Operation> RecognizeCore(const Operation& root, ValueId centred, const InverseRoot& inverse) {
    const Operation* variance = rewriter_.Inner(inverse.term, "reduce_mean");
    const std::optional<Axes> axes = variance == nullptr ? std::nullopt : KeptAxes(*variance);
    if (!axes) return std::nullopt;
    const std::optional<ValueId> squared = ReadSquare(*Argument(*variance, "x"));
    if (!squared) return std::nullopt;

    const bool once = *squared == centred;
    // With d computed once, it is an operand of the square (twice if that is d * d) and of the root.
    const std::size_t squareUses = rewriter_.Producer(*Argument(*variance, "x"), "mul") != nullptr ? 2 : 1;
    const std::optional<Centred> numerator = ReadCentred(centred, once ? squareUses + 1 : 1, once);
    const std::optional<Centred> denominator = once ? numerator : ReadCentred(*squared, squareUses, false);
    if (!numerator || !denominator || numerator->x != denominator->x) return std::nullopt;
    if (numerator->axes != *axes || denominator->axes != *axes) return std::nullopt;
    if (rewriter_.ShapeOf(numerator->x) != rewriter_.ShapeOf(root.results.front())) return std::nullopt;

    std::vector<std::int32_t> list(axes->begin(), axes->end());
    const ValueId axesConstant = rewriter_.AddConstant(Tensor::IntVector(std::move(list)));
    const ValueId epsilon = rewriter_.AddConstant(Tensor::Float(static_cast<float>(inverse.epsilon)));
    return MakeOperation("layer_norm", root, {{"x", numerator->x}, {"axes", axesConstant}, {"epsilon", epsilon}});
  }

  /// d of d * d, square(d) or pow(d, 2).
  [[nodiscard]] std::optional<ValueId> ReadSquare(ValueId id) const {
    if (const Operation* square = rewriter_.Inner(id, "square")) return Argument(*square, "x");
    if (const Operation* pow = rewriter_.Inner(id, "pow")) {
      return FloatScalar(rewriter_.program(), *Argument(*pow, "y")) == 2.0 ? Argument(*pow, "x") : std::nullopt;
    }
    const Operation* mul = rewriter_.Inner(id, "mul");
    return mul != nullptr && Argument(*mul, "x") == Argument(*mul, "y") ? Argument(*mul, "x") : std::nullopt;
  }

  /// `id`, of that many uses, as x - reduce_mean(x). Where two differences share one mean, that has two uses.
  [[nodiscard]] std::optional<Centred> ReadCentred(ValueId id, std::size_t uses, bool ownsMean) const {
    const Operation* sub = rewriter_.Inner(id, "sub", uses);
    if (sub == nullptr) return std::nullopt;
    const ValueId mean = *Argument(*sub, "y");
    const Operation* reduce = rewriter_.Inner(mean, "reduce_mean");
    if (reduce == nullptr && !ownsMean) reduce = rewriter_.Inner(mean, "reduce_mean", 2);
    const std::optional<Axes> axes = reduce == nullptr ? std::nullopt : KeptAxes(*reduce);
    if (!axes || Argument(*reduce, "x") != Argument(*sub, "x")) return std::nullopt;
    return Centred{*Argument(*sub, "x"), *axes};
  }

  /// The axes of a reduction that keeps its dimensions, sorted and counted from the front.
  [[nodiscard]] std::optional<Axes> KeptAxes(const Operation& reduce) const {
    const OpCall call(rewriter_.program(), reduce);
    const std::size_t rank = call.ShapeOf("x").size();
    if (!call.Bool("keep_dims") || StorageOf(call.Type("x").element) != Storage::Float) return std::nullopt;
    Axes axes;
    if (call.Has("axes")) axes = call.Ints("axes");
    if (axes.empty()) {
      for (std::size_t i = 0; i < rank; ++i) axes.push_back(static_cast<std::int64_t>(i));
    }
    for (std::int64_t& axis : axes) axis = call.Axis(axis, rank);
    std::ranges::sort(axes);
    return axes;
  }

  /// root = norm * gamma or norm + beta.
  std::optional<Operation> AbsorbConstant(const Operation& root, ValueId norm, ValueId constant) {
    const bool isScale = root.definition->key == "mul";
    const Operation* layerNorm = rewriter_.Inner(norm, "layer_norm");
    if (layerNorm == nullptr || Argument(*layerNorm, "beta") || (isScale && Argument(*layerNorm, "gamma"))) {
      return std::nullopt;
    }
    const std::optional<Tensor> parameter = AsParameter(*layerNorm, constant);
    if (!parameter || rewriter_.ShapeOf(norm) != rewriter_.ShapeOf(root.results.front())) return std::nullopt;
    Operation merged = *layerNorm;
    merged.results = root.results;
    SetArgument(merged, isScale ? "gamma" : "beta", rewriter_.AddConstant(*parameter));
    return merged;
  }

  /// A constant that broadcasts to the result of `layerNorm`, as gamma or beta of it: it must have all sizes of the
  /// axes and be 1 elsewhere.
  [[nodiscard]] std::optional<Tensor> AsParameter(const Operation& layerNorm, ValueId id) const {
    const std::optional<Tensor>& constant = rewriter_.program().at(id).constant;
    if (!constant || constant->storage() != Storage::Float) return std::nullopt;
    const OpCall call(rewriter_.program(), layerNorm);
    const Shape& x = call.ShapeOf("x");
    if (constant->shape().size() > x.size()) return std::nullopt;
    Shape aligned(x.size() - constant->shape().size(), 1);
    aligned.insert(aligned.end(), constant->shape().begin(), constant->shape().end());
    Shape expected(x.size(), 1);
    Shape sizes;
    if (!call.Has("axes")) return std::nullopt;
    Axes axes = call.Ints("axes");
    for (std::int64_t& axis : axes) {
      axis = call.Axis(axis, x.size());
      expected[static_cast<std::size_t>(axis)] = x[static_cast<std::size_t>(axis)];
      sizes.push_back(x[static_cast<std::size_t>(axis)]);
    }
    // In the order of the dimensions, the elements already stand as gamma has them.
    if (aligned != expected || !std::ranges::is_sorted(axes)) return std::nullopt;
    return constant->Reshaped(std::move(sizes));
  }

  Rewriter rewriter_;
};

}  // namespace

void RecognizeLayerNorm(Program& program) {
  Recognizer(program).Run();
}

}  // namespace ulmora::engine::program
