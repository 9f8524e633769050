// Given conv, conv_transpose or linear with constant weights, and behind it a batch_norm or a scale or shift by
// constants, one per output channel or one for all, result: the operation alone, with other weights and bias.
//
//   batch_norm(y)                          scale gamma / sqrt(variance + eps), shift beta - mean * scale
//   y * c, y / c                           scale
//   y + c, y - c, c - y                    shift, and scale -1
//
// The result of the operation must serve nothing else. Nothing is folded where float32 could not hold the new weights:
// where one becomes infinite, or so small that it loses digits.

#include "engine/Limits.h"
#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"
#include "engine/program/passes/ChannelConstant.h"
#include "engine/program/passes/Pass.h"
#include "engine/program/passes/Rewriter.h"

#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace ulmora::engine::program {
namespace {

/// y * scale + shift, both per output channel.
struct ChannelAffine {
  std::vector<double> scale;
  std::vector<double> shift;
};

class Folder {
 public:
  explicit Folder(Program& program) : rewriter_(program) {}

  void Run() {
    for (std::size_t position = 0; position < rewriter_.size(); ++position) {
      const Operation* operation = rewriter_.At(position);
      if (operation == nullptr || !operation->fused.empty()) continue;
      for (const std::string_view flowing : {"x", "y"}) {
        if (operation->definition->IndexOf(flowing) >= 0 && Fold(position, *operation, flowing)) break;
      }
    }
    rewriter_.Finish();
  }

 private:
  /// Folds the operation into the one that computes its operand `flowing`.
  bool Fold(std::size_t position, const Operation& operation, std::string_view flowing) {
    const std::optional<ValueId> y = Argument(operation, flowing);
    const std::optional<std::size_t> producerPosition = y ? FoldableProducer(*y) : std::nullopt;
    if (!producerPosition || rewriter_.ShapeOf(*y) != rewriter_.ShapeOf(operation.results.front())) return false;
    const Operation& producer = *rewriter_.At(*producerPosition);
    const std::optional<ChannelAffine> affine = AffineOf(operation, flowing, ChannelAxis(producer), *y);
    if (!affine) return false;
    std::optional<Operation> folded = WithAffine(producer, *affine);
    if (!folded) return false;

    folded->results = rewriter_.Take(position).results;
    static_cast<void>(rewriter_.Take(*producerPosition));
    rewriter_.Put(*producerPosition, std::move(*folded));
    return true;
  }

  [[nodiscard]] std::optional<std::size_t> FoldableProducer(ValueId y) const {
    for (const std::string_view key : {"conv", "conv_transpose", "linear"}) {
      const Operation* producer = rewriter_.Inner(y, key);
      if (producer == nullptr) continue;
      const std::optional<ValueId> bias = Argument(*producer, "bias");
      const bool isConstant = rewriter_.program().at(*Argument(*producer, "weight")).constant.has_value() &&
                              (!bias || rewriter_.program().at(*bias).constant.has_value());
      return isConstant ? rewriter_.PositionOf(y) : std::nullopt;
    }
    return std::nullopt;
  }

  [[nodiscard]] std::size_t ChannelAxis(const Operation& producer) const {
    const Shape& shape = rewriter_.ShapeOf(producer.results.front());
    return producer.definition->key == "linear" ? shape.size() - 1 : 1;
  }

  [[nodiscard]] std::optional<ChannelAffine> AffineOf(const Operation& operation, std::string_view flowing,
                                                      std::size_t axis, ValueId y) const {
    const std::string_view key = operation.definition->key;
    if (key == "batch_norm") return axis == 1 ? std::optional(AffineOfBatchNorm(operation)) : std::nullopt;
    if (key != "mul" && key != "real_div" && key != "add" && key != "sub") return std::nullopt;
    const bool flowsFirst = flowing == "x";
    if (key == "real_div" && !flowsFirst) return std::nullopt;
    const ValueId other = *Argument(operation, flowsFirst ? "y" : "x");
    const std::optional<std::vector<double>> constant =
        ReadChannelConstant(rewriter_.program(), other, rewriter_.ShapeOf(y), axis);
    if (!constant) return std::nullopt;
    ChannelAffine affine{std::vector<double>(constant->size(), 1.0), std::vector<double>(constant->size(), 0.0)};
    for (std::size_t c = 0; c < constant->size(); ++c) {
      const double value = (*constant)[c];
      if (key == "mul") affine.scale[c] = value;
      if (key == "real_div") affine.scale[c] = 1.0 / value;
      if (key == "add") affine.shift[c] = value;
      if (key == "sub") affine.shift[c] = flowsFirst ? -value : value;
      if (key == "sub" && !flowsFirst) affine.scale[c] = -1.0;
    }
    return affine;
  }

  [[nodiscard]] ChannelAffine AffineOfBatchNorm(const Operation& operation) const {
    const OpCall call(rewriter_.program(), operation);
    const std::span<const float> mean = call.Value("mean").floats();
    const std::span<const float> variance = call.Value("variance").floats();
    const double epsilon = static_cast<double>(call.Float("epsilon"));
    ChannelAffine affine;
    for (std::size_t c = 0; c < mean.size(); ++c) {
      const double gamma = call.Has("gamma") ? static_cast<double>(call.Value("gamma").floats()[c]) : 1.0;
      const double beta = call.Has("beta") ? static_cast<double>(call.Value("beta").floats()[c]) : 0.0;
      affine.scale.push_back(gamma / std::sqrt(static_cast<double>(variance[c]) + epsilon));
      affine.shift.push_back(beta - static_cast<double>(mean[c]) * affine.scale.back());
    }
    return affine;
  }

  /// The operation with the affine function folded in; none if float32 cannot hold that.
  std::optional<Operation> WithAffine(const Operation& producer, const ChannelAffine& affine) {
    const Tensor weight = *rewriter_.program().at(*Argument(producer, "weight")).constant;
    if (weight.count() == 0 || weight.count() > foldableElements_) return std::nullopt;
    const std::optional<ValueId> biasId = Argument(producer, "bias");
    std::vector<float> bias(affine.scale.size(), 0.0F);
    if (biasId) {
      const std::span<const float> old = rewriter_.program().at(*biasId).constant->floats();
      bias.assign(old.begin(), old.end());
    }
    std::vector<float> scaled;
    scaled.reserve(static_cast<std::size_t>(weight.count()));
    const std::vector<std::size_t> channels = ChannelOfWeight(producer, weight.shape());
    const std::size_t run = weight.floats().size() / channels.size();
    for (std::size_t i = 0; i < weight.floats().size(); ++i) {
      const float old = weight.floats()[i];
      const auto value = static_cast<float>(static_cast<double>(old) * affine.scale[channels[i / run]]);
      if (!IsSafe(value, old != 0.0F && affine.scale[channels[i / run]] != 0.0)) return std::nullopt;
      scaled.push_back(value);
    }
    for (std::size_t c = 0; c < bias.size(); ++c) {
      bias[c] = static_cast<float>(static_cast<double>(bias[c]) * affine.scale[c] + affine.shift[c]);
      if (!IsSafe(bias[c], false)) return std::nullopt;
    }
    foldableElements_ -= weight.count();
    const auto channelCount = static_cast<std::int64_t>(bias.size());
    Operation folded = producer;
    SetArgument(folded, "weight", rewriter_.AddConstant(Tensor::Floats(weight.shape(), std::move(scaled))));
    SetArgument(folded, "bias", rewriter_.AddConstant(Tensor::Floats({channelCount}, std::move(bias))));
    return folded;
  }

  static bool IsSafe(float value, bool mustBeNormal) {
    if (!std::isfinite(value)) return false;
    return !mustBeNormal || std::abs(value) >= std::numeric_limits<float>::min();
  }

  /// Output channel of each run of elements of the weight: its first dimension, for conv_transpose its first two.
  [[nodiscard]] std::vector<std::size_t> ChannelOfWeight(const Operation& producer, const Shape& shape) const {
    std::vector<std::size_t> channels;
    const auto first = static_cast<std::size_t>(shape[0]);
    if (producer.definition->key != "conv_transpose") {
      for (std::size_t c = 0; c < first; ++c) channels.push_back(c);
      return channels;
    }
    const OpCall call(rewriter_.program(), producer);
    const auto groups = static_cast<std::size_t>(call.Int("groups"));
    const auto perGroup = static_cast<std::size_t>(shape[1]);
    for (std::size_t in = 0; in < first; ++in) {
      const std::size_t group = in / (first / groups);
      for (std::size_t out = 0; out < perGroup; ++out) channels.push_back(group * perGroup + out);
    }
    return channels;
  }

  Rewriter rewriter_;
  // Each folding copies the weight. A package may share one weight among any number of operations.
  std::int64_t foldableElements_ = limits::kMaxConstantBytes / 4;
};

}  // namespace

void FoldBatchNorm(Program& program) {
  Folder(program).Run();
}

}  // namespace ulmora::engine::program
