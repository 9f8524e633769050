// Other shapes for the same elements, which cost nothing in row-major order, and transpose.

#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/Move.h"
#include "engine/program/ShapeMath.h"

namespace ulmora::engine::cpu {
namespace {

std::vector<Form> LowerReshape(const LowerCall& call) {
  Form form;
  form.plan.needs = {{call.Operand("x"), Layout::Plain}};
  form.emit = [](Emitter& emitter, const program::Operation& operation) {
    emitter.Alias(operation.results.front(), Layout::Plain, operation.arguments.front().front(), Layout::Plain);
  };
  return {std::move(form)};
}

/// Row-major to row-major by the library's reorder, which works in blocks that fit the cache.
Form ReorderForm(const LowerCall& call, const std::vector<std::size_t>& perm) {
  constexpr double kAgainstCopy = 1.8;
  const program::ValueId x = call.Operand("x");
  const std::vector<std::int64_t> strides = program::RowMajorStrides(call.ShapeOf(x));
  std::vector<std::int64_t> permuted;
  for (const std::size_t axis : perm) permuted.push_back(strides[axis]);
  const Shape& result = call.ShapeOf(call.result());
  const onednn::Desc given(result, dnnl::memory::data_type::f32, permuted);
  Form form;
  form.plan = {{{x, Layout::Plain}}, Layout::Plain, kAgainstCopy * MemoryCost(8 * ElementCount(result))};
  form.emit = [x, given, wanted = Descriptor(result, Layout::Plain)](Emitter& emitter,
                                                                     const program::Operation& operation) {
    const BufferId source = emitter.Source(x, Layout::Plain);
    emitter.Reorder(source, given, emitter.Result(operation.results.front(), Layout::Plain), wanted);
  };
  return form;
}

std::vector<Form> LowerTranspose(const LowerCall& call) {
  const Shape& shape = call.call.ShapeOf("x");
  std::vector<std::size_t> perm;
  for (const std::int64_t axis : call.call.Ints("perm")) {
    perm.push_back(static_cast<std::size_t>(call.call.Axis(axis, shape.size())));
  }
  Move move(shape, call.ShapeOf(call.result()));
  for (std::size_t axis = 0; axis < perm.size(); ++axis) move.Keep(axis, perm[axis]);
  std::vector<Form> forms = MoveForms(call, call.Operand("x"), {std::move(move)});
  if (call.IsFloat(call.Operand("x")) && !perm.empty()) forms.push_back(ReorderForm(call, perm));
  return forms;
}

}  // namespace

std::vector<LoweringEntry> ReshapeLowerings() {
  return {{"expand_dims", LowerReshape},  {"flatten2d", LowerReshape}, {"reshape", LowerReshape},
          {"reshape_like", LowerReshape}, {"squeeze", LowerReshape},   {"transpose", LowerTranspose}};
}

}  // namespace ulmora::engine::cpu
