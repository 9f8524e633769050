// Given an elementwise operation whose operand is the result of a convolution or matrix product that serves nothing
// else, result: the operation is a fused step of that producer. passes/AttachPostOps.h has the table of what may ride
// on what.

#include "engine/program/passes/AttachPostOps.h"

#include "engine/program/OpRegistry.h"
#include "engine/program/passes/ChannelConstant.h"
#include "engine/program/passes/Pass.h"
#include "engine/program/passes/Rewriter.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace ulmora::engine::program {
namespace {

constexpr std::array<std::string_view, 15> kActivations = {
    "abs",   "clip",    "elu",          "gelu", "hard_swish", "leaky_relu", "linear_activation", "mish", "relu",
    "relu6", "sigmoid", "sigmoid_hard", "silu", "square",     "tanh"};
constexpr std::array<std::string_view, 6> kBinaries = {"add", "maximum", "minimum", "mul", "real_div", "sub"};
constexpr std::array<std::string_view, 4> kProducers = {"conv", "conv_transpose", "linear", "matmul"};

/// A step that may be attached: on which producer, with which parameter flowing.
struct Candidate {
  std::size_t producer = 0;
  std::size_t after = 0;  ///< the producer must stand at this position or later
  std::string_view flowing;
};

class Attacher {
 public:
  explicit Attacher(Program& program) : rewriter_(program) {}

  void Run() {
    for (std::size_t position = 0; position < rewriter_.size(); ++position) {
      const Operation* step = rewriter_.At(position);
      if (step == nullptr || !step->fused.empty()) continue;
      const std::optional<Candidate> candidate = FindProducer(*step);
      if (candidate) Attach(position, *candidate);
    }
    rewriter_.Finish();
  }

 private:
  [[nodiscard]] std::optional<Candidate> FindProducer(const Operation& step) const {
    const std::optional<StepKind> kind = StepKindOf(step.definition->key);
    if (!kind) return std::nullopt;
    std::optional<Candidate> best = TryFlowing(step, *kind, "x");
    const bool eitherSide = kind == StepKind::Binary && step.definition->key != "real_div";
    const std::optional<Candidate> second = eitherSide ? TryFlowing(step, *kind, "y") : std::nullopt;
    // The later producer runs when the other operand is there already.
    if (second && (!best || second->producer > best->producer)) best = second;
    return best;
  }

  [[nodiscard]] std::optional<Candidate> TryFlowing(const Operation& step, StepKind kind,
                                                    std::string_view flowing) const {
    const ValueId id = *Argument(step, flowing);
    const Program& program = rewriter_.program();
    const std::optional<std::size_t> position = rewriter_.PositionOf(id);
    if (!position || rewriter_.UseCount(id) != 1 || rewriter_.IsOutput(id)) return std::nullopt;
    const Operation& producer = *rewriter_.At(*position);
    const TensorType& type = program.at(id).type;
    const TensorType& result = program.at(step.results.front()).type;
    const std::size_t steps = producer.fused.size() + (IsReversed(step, flowing) ? 2 : 1);
    if (!CarriesSteps(producer.definition->key) || steps > kMaxFusedSteps) return std::nullopt;
    if (type.shape.size() < 2 || type.shape != result.shape || StorageOf(type.element) != Storage::Float ||
        StorageOf(result.element) != Storage::Float) {
      return std::nullopt;
    }
    Candidate candidate{*position, *position, flowing};
    if (kind == StepKind::Prelu && !producer.definition->key.starts_with("conv")) return std::nullopt;
    if (kind == StepKind::Binary) {
      const ValueId other = *Argument(step, flowing == "x" ? "y" : "x");
      if (!StepOperandOf(program, producer, other)) return std::nullopt;
      candidate.after = rewriter_.PositionOf(other).value_or(0);
    }
    return candidate;
  }

  /// The producer stays where it is if all operands are computed before it; otherwise it takes the place of the step.
  /// Nothing in between reads its result, because only the step does.
  void Attach(std::size_t position, const Candidate& candidate) {
    Operation step = rewriter_.Take(position);
    Operation producer = rewriter_.Take(candidate.producer);
    if (IsReversed(step, candidate.flowing)) {
      producer.fused.push_back(Negation());
      producer.fused.push_back(MakeStep("add", {{"x", kPrevious}, {"y", *Argument(step, "x")}}));
    } else {
      SetArgument(step, candidate.flowing, kPrevious);
      producer.fused.push_back({step.definition, std::move(step.arguments)});
    }
    producer.results = step.results;
    rewriter_.Put(candidate.after > candidate.producer ? position : candidate.producer, std::move(producer));
  }

  /// a - y is (-y) + a, to the last bit.
  static bool IsReversed(const Operation& step, std::string_view flowing) {
    return step.definition->key == "sub" && flowing == "y";
  }

  static FusedStep MakeStep(std::string_view key, const std::vector<std::pair<std::string_view, ValueId>>& arguments) {
    Operation operation = MakeOperation(key, Operation{}, arguments);
    return {operation.definition, std::move(operation.arguments)};
  }

  FusedStep Negation() {
    const ValueId alpha = rewriter_.AddConstant(Tensor::Float(-1.0F));
    const ValueId beta = rewriter_.AddConstant(Tensor::Float(0.0F));
    return MakeStep("linear_activation", {{"x", kPrevious}, {"alpha", alpha}, {"beta", beta}});
  }

  Rewriter rewriter_;
};

}  // namespace

std::optional<StepKind> StepKindOf(std::string_view key) {
  if (std::ranges::count(kActivations, key) > 0) return StepKind::Activation;
  if (std::ranges::count(kBinaries, key) > 0) return StepKind::Binary;
  return key == "prelu" ? std::optional(StepKind::Prelu) : std::nullopt;
}

bool CarriesSteps(std::string_view key) {
  return std::ranges::count(kProducers, key) > 0;
}

std::size_t ChannelAxis(const Program& program, const Operation& producer) {
  const bool isConvolution = producer.definition->key.starts_with("conv");
  return isConvolution ? 1 : program.at(producer.results.front()).type.shape.size() - 1;
}

std::optional<StepOperand> StepOperandOf(const Program& program, const Operation& producer, ValueId other) {
  const TensorType& type = program.at(other).type;
  const Shape& result = program.at(producer.results.front()).type.shape;
  if (StorageOf(type.element) != Storage::Float) return std::nullopt;
  if (IsChannelConstant(program, other, result, ChannelAxis(program, producer))) {
    return program.at(other).constant->count() == 1 ? StepOperand::Scalar : StepOperand::Channel;
  }
  return type.shape == result ? std::optional(StepOperand::Tensor) : std::nullopt;
}

void AttachPostOps(Program& program) {
  Attacher(program).Run();
}

}  // namespace ulmora::engine::program
