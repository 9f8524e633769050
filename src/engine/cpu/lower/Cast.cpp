// cast, identity, select, logical_not: what is left of them when constants have been folded.

#include "engine/cpu/lower/Broadcasting.h"
#include "engine/cpu/lower/Elementwise.h"
#include "engine/cpu/lower/Families.h"

namespace ulmora::engine::cpu {
namespace {

/// The result is the operand, in whatever layout that is.
std::vector<Form> SameForms(const LowerCall& call) {
  const program::ValueId x = call.Operand("x");
  std::vector<Form> forms;
  for (const Layout layout : kAllLayouts) {
    if (layout != Layout::Plain && (!HasChannels(call.ShapeOf(x)) || !call.IsFloat(x))) continue;
    Form form;
    form.plan = {{{x, layout}}, layout, 0.0};
    form.emit = [layout](Emitter& emitter, const program::Operation& operation) {
      emitter.Alias(operation.results.front(), layout, operation.arguments.front().front(), layout);
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

/// Floats are all held as float32; what casts to and from other kinds make of values is left to the reference.
std::vector<Form> LowerCast(const LowerCall& call) {
  const auto storage = [&](program::ValueId id) { return StorageOf(call.program.at(id).type.element); };
  const bool areFloats = storage(call.result()) == Storage::Float && storage(call.Operand("x")) == Storage::Float;
  if (areFloats) return SameForms(call);
  const bool fromBool = storage(call.Operand("x")) == Storage::Bool && storage(call.result()) == Storage::Float;
  if (!fromBool) return {};
  const std::vector<BroadcastOperand> x = {{call.Operand("x"), std::nullopt}};
  return BroadcastForms<float, std::uint8_t>(
      call, [](std::uint8_t v) { return v != 0 ? 1.0F : 0.0F; }, x, KeepsZero::No);
}

std::vector<Form> LowerSelect(const LowerCall& call) {
  if (!call.IsFloat(call.result()) || !call.IsFloat(call.Operand("a")) || !call.IsFloat(call.Operand("b"))) return {};
  const std::vector<BroadcastOperand> operands = {
      {call.Operand("cond"), std::nullopt}, {call.Operand("a"), std::nullopt}, {call.Operand("b"), std::nullopt}};
  return BroadcastForms<float, std::uint8_t, float, float>(
      call, [](std::uint8_t cond, float a, float b) { return cond != 0 ? a : b; }, operands, KeepsZero::No);
}

std::vector<Form> LowerNot(const LowerCall& call) {
  const std::vector<BroadcastOperand> x = {{call.Operand("x"), std::nullopt}};
  return BroadcastForms<std::uint8_t, std::uint8_t>(
      call, [](std::uint8_t v) -> std::uint8_t { return v == 0; }, x, KeepsZero::No);
}

}  // namespace

std::vector<LoweringEntry> CastLowerings() {
  return {{"cast", LowerCast}, {"identity", SameForms}, {"logical_not", LowerNot}, {"select", LowerSelect}};
}

}  // namespace ulmora::engine::cpu
