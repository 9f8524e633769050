// Pooling by the library.

#include "engine/cpu/lower/Families.h"
#include "engine/program/ops/PoolWindow.h"

#include <algorithm>

namespace ulmora::engine::cpu {
namespace {

using dnnl::algorithm;
using onednn::Dims;

struct PoolTask {
  algorithm kind = algorithm::pooling_max;
  Dims strides, kernel, padBefore, padAfter;
  bool overhangs = false;  ///< a window reaches beyond the declared padding
  bool isExtreme = false;  ///< beyond what the library's arithmetic holds, or walks through in reasonable time
};

PoolTask MakeTask(const LowerCall& call, algorithm kind) {
  PoolTask task;
  task.kind = kind;
  constexpr std::int64_t kLargestStep = 1 << 15;
  constexpr double kLargestArea = 1 << 24;  // as a float, the divisor of an average is exact up to here
  double area = 1.0;
  for (const program::WindowAxis& axis : program::PoolAxes(call.call)) {
    // A single window is not moved.
    const std::int64_t stride = axis.output == 1 ? 1 : axis.stride;
    task.isExtreme = task.isExtreme || std::max({stride, axis.kernel, axis.padBefore}) > kLargestStep;
    area *= static_cast<double>(axis.kernel);
    task.strides.push_back(stride);
    task.kernel.push_back(axis.kernel);
    task.padBefore.push_back(axis.padBefore);
    // The library wants the padding that the number of windows comes from, whatever the package declares.
    const std::int64_t needed = (axis.output - 1) * stride + axis.kernel - axis.input - axis.padBefore;
    task.padAfter.push_back(needed);
    task.overhangs = task.overhangs || needed > axis.padAfter;
  }
  task.isExtreme = task.isExtreme || area > kLargestArea;
  return task;
}

std::vector<Form> PoolForms(const LowerCall& call, const PoolTask& task) {
  const program::ValueId x = call.Operand("x");
  const Shape& from = call.ShapeOf(x);
  const Shape& to = call.ShapeOf(call.result());
  if (task.isExtreme) return {};
  std::vector<Form> forms;
  for (const Layout layout : kAllLayouts) {
    const auto description = onednn::DescribePooling(onednn::Reference::Refused, onednn::PlainAttributes(), task.kind,
                                                     Descriptor(from, layout), Descriptor(to, layout), task.strides,
                                                     task.kernel, task.padBefore, task.padAfter);
    if (!description) continue;
    Form form;
    form.plan = {{{x, layout}}, layout, MemoryCost(4 * (ElementCount(from) + ElementCount(to)))};
    if (layout == Layout::Plain) form.plan.cost *= 2.0;
    form.emit = [x, layout, description = *description](Emitter& emitter, const program::Operation& operation) {
      const BufferId source = emitter.Source(x, layout);
      const BufferId result = emitter.Result(operation.results.front(), layout);
      emitter.Add(dnnl::pooling_forward(description),
                  {{DNNL_ARG_SRC, description.src_desc(), source}, {DNNL_ARG_DST, description.dst_desc(), result}},
                  description.scratchpad_desc());
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

std::vector<Form> LowerMaxPool(const LowerCall& call) {
  return PoolForms(call, MakeTask(call, algorithm::pooling_max));
}

std::vector<Form> LowerAvgPool(const LowerCall& call) {
  const bool exclude = call.call.Bool("exclude_padding_from_average");
  const PoolTask task =
      MakeTask(call, exclude ? algorithm::pooling_avg_exclude_padding : algorithm::pooling_avg_include_padding);
  // The library would count in the divisor what overhangs the padding, too.
  if (!exclude && task.overhangs) return {};
  return PoolForms(call, task);
}

}  // namespace

std::vector<LoweringEntry> PoolLowerings() {
  return {{"avg_pool", LowerAvgPool}, {"max_pool", LowerMaxPool}};
}

}  // namespace ulmora::engine::cpu
