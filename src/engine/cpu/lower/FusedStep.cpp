#include "engine/cpu/lower/FusedStep.h"

#include "engine/cpu/lower/EltwiseMap.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

namespace ulmora::engine::cpu {
namespace {

using dnnl::algorithm;
using onednn::Eltwise;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

constexpr std::array<std::string_view, 6> kCombinations = {"add", "sub", "mul", "real_div", "maximum", "minimum"};

bool IsCombination(std::string_view key) {
  return std::ranges::find(kCombinations, key) != kCombinations.end();
}

program::OpCall CallOf(const LowerCall& call, const program::FusedStep& step) {
  std::vector<std::vector<program::OpCall::Operand>> operands;
  for (const program::Operands& parameter : step.arguments) {
    std::vector<program::OpCall::Operand>& row = operands.emplace_back();
    for (const program::ValueId id : parameter) {
      const program::Value& value = call.program.at(id == program::kPrevious ? call.result() : id);
      row.push_back({value.type, value.constant ? &*value.constant : nullptr});
    }
  }
  return {*step.definition, call.operation.name, call.program.opset, std::move(operands)};
}

/// previous <key> c, or c <key> previous.
std::optional<Eltwise> WithScalar(std::string_view key, bool previousFirst, float c) {
  if (key == "add") return Eltwise{algorithm::eltwise_linear, 1.0F, c};
  if (key == "sub") {
    return previousFirst ? Eltwise{algorithm::eltwise_linear, 1.0F, -c} : Eltwise{algorithm::eltwise_linear, -1.0F, c};
  }
  if (key == "mul") return Eltwise{algorithm::eltwise_linear, c, 0.0F};
  if (key == "maximum") return Eltwise{algorithm::eltwise_clip, c, kInfinity};
  if (key == "minimum") return Eltwise{algorithm::eltwise_clip, -kInfinity, c};
  return std::nullopt;  // dividing by c is not multiplying by its rounded inverse
}

/// The constant of one element that the step combines the result with.
const Tensor* ScalarOf(const LowerCall& call, program::ValueId other) {
  if (other == program::kPrevious || !call.IsFloat(other)) return nullptr;
  const std::optional<Tensor>& constant = call.program.at(other).constant;
  return constant && constant->count() == 1 ? &*constant : nullptr;
}

/// Both operands of a combination.
std::pair<program::ValueId, program::ValueId> SidesOf(const program::FusedStep& step) {
  return {step.arguments.at(0).at(0), step.arguments.at(1).at(0)};
}

}  // namespace

std::optional<std::vector<Eltwise>> FunctionsOf(const LowerCall& call, const program::FusedStep& step) {
  const std::string_view key = step.definition->key;
  if (!IsCombination(key)) return EltwiseOf(CallOf(call, step));
  const auto [x, y] = SidesOf(step);
  if (x == program::kPrevious && y == program::kPrevious) {
    if (key != "mul") return std::nullopt;
    return std::vector<Eltwise>{{algorithm::eltwise_square}};
  }
  const bool previousFirst = x == program::kPrevious;
  const Tensor* scalar = ScalarOf(call, previousFirst ? y : x);
  const auto function = scalar != nullptr ? WithScalar(key, previousFirst, scalar->floats().front()) : std::nullopt;
  if (!function) return std::nullopt;
  return std::vector<Eltwise>{*function};
}

std::optional<TensorStep> TensorStepOf(const LowerCall& call, const program::FusedStep& step) {
  const std::string_view key = step.definition->key;
  if (!IsCombination(key)) return std::nullopt;
  const auto [x, y] = SidesOf(step);
  if (x == y) return std::nullopt;
  const bool previousFirst = x == program::kPrevious;
  const program::ValueId other = previousFirst ? y : x;
  if (!call.IsFloat(other) || ScalarOf(call, other) != nullptr) return std::nullopt;
  return TensorStep{key, other, previousFirst};
}

}  // namespace ulmora::engine::cpu
