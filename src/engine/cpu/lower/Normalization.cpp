// batch_norm as a factor and a summand for each channel; instance_norm and layer_norm by statistics of the data.

#include "engine/cpu/kernels/Normalize.h"
#include "engine/cpu/lower/Broadcasting.h"
#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/ReduceViews.h"
#include "engine/program/ops/LayerNormAxes.h"

#include <algorithm>
#include <cmath>

namespace ulmora::engine::cpu {
namespace {

/// True if gamma and beta are constants or absent.
bool ParametersAreKnown(const LowerCall& call) {
  const auto isKnown = [&](std::string_view parameter) {
    return !call.call.Has(parameter) || call.call.IsKnown(parameter);
  };
  return isKnown("gamma") && isKnown("beta");
}

/// Elements of an optional constant; `count` times `otherwise` if it is absent.
std::vector<float> FloatsOr(const LowerCall& call, std::string_view parameter, std::int64_t count, float otherwise) {
  if (!call.call.Has(parameter)) return std::vector<float>(static_cast<std::size_t>(count), otherwise);
  const std::span<const float> floats = call.call.Value(parameter).floats();
  return {floats.begin(), floats.end()};
}

std::vector<Form> LowerBatchNorm(const LowerCall& call) {
  if (!ParametersAreKnown(call)) return {};
  const Shape& x = call.call.ShapeOf("x");
  const std::int64_t channels = x[1];
  const std::span<const float> mean = call.call.Value("mean").floats();
  const std::span<const float> variance = call.call.Value("variance").floats();
  std::vector<float> scale = FloatsOr(call, "gamma", channels, 1.0F);
  std::vector<float> shift = FloatsOr(call, "beta", channels, 0.0F);
  const double epsilon = static_cast<double>(call.call.Float("epsilon"));
  for (std::size_t c = 0; c < scale.size(); ++c) {
    const double factor = static_cast<double>(scale[c]) / std::sqrt(static_cast<double>(variance[c]) + epsilon);
    shift[c] = static_cast<float>(static_cast<double>(shift[c]) - static_cast<double>(mean[c]) * factor);
    scale[c] = static_cast<float>(factor);
  }
  Shape perChannel(x.size(), 1);
  perChannel[1] = channels;
  const std::vector<BroadcastOperand> operands = {{call.Operand("x"), std::nullopt},
                                                  {0, Tensor::Floats(perChannel, std::move(scale))},
                                                  {0, Tensor::Floats(perChannel, std::move(shift))}};
  return BroadcastForms<float, float, float, float>(
      call, [](float v, float a, float b) { return v * a + b; }, operands, KeepsZero::No);
}

/// A normalisation by statistics over the middle of a view.
struct StatisticsTask {
  ReduceView view;
  double epsilon = 0.0;
  std::vector<float> groupGamma;  ///< for each [outer, inner]; empty means 1 and 0
  std::vector<float> groupBeta;
  std::vector<float> middleGamma;  ///< for each index along the middle; empty means 1 and 0
  std::vector<float> middleBeta;
};

void ComputeAffine(const StatisticsTask& task, const Reducer<Moments>& reducer, const Operands& at) {
  float* scale = at.at(2);
  float* shift = at.at(3);
  reducer.Run(at.at(0), at.at<void>(1), [&](std::int64_t i, const Moments::State& moments) {
    const auto index = static_cast<std::size_t>(i);
    const bool plain = task.groupGamma.empty();
    const Affine affine = AffineOf(moments, task.view.count, task.epsilon, plain ? 1.0F : task.groupGamma[index],
                                   plain ? 0.0F : task.groupBeta[index]);
    scale[i] = affine.scale;
    shift[i] = affine.shift;
  });
}

void EmitStatistics(Emitter& emitter, BufferId source, BufferId result, const StatisticsTask& task) {
  const Reducer<Moments> reducer(task.view);
  const std::int64_t groupBytes = 4 * task.view.outer * task.view.inner;
  const BufferId scale = emitter.Scratch(groupBytes);
  const BufferId shift = emitter.Scratch(groupBytes);
  emitter.Add([task, reducer](const Operands& at) { ComputeAffine(task, reducer, at); },
              {source, emitter.Scratch(reducer.ScratchBytes()), scale, shift});
  emitter.Add(
      [task](const Operands& at) {
        const bool plain = task.middleGamma.empty();
        ApplyAffine(task.view, at.at(0), at.at(1), at.at(2), plain ? nullptr : task.middleGamma.data(),
                    plain ? nullptr : task.middleBeta.data(), at.at(3));
      },
      {source, scale, shift, result});
}

void EmitLines(Emitter& emitter, BufferId source, BufferId result, const StatisticsTask& task) {
  emitter.Add(
      [task](const Operands& at) {
        NormalizeLines(task.view, at.at(0), static_cast<float>(task.epsilon), task.middleGamma.data(),
                       task.middleBeta.data(), at.at(1));
      },
      {source, result});
}

/// Lines up to this length are normalised in one pass, in float.
constexpr std::int64_t kShortLine = 4096;

Form StatisticsForm(program::ValueId x, const Shape& shape, Layout layout, StatisticsTask task) {
  const bool byLines = task.view.inner == 1 && task.view.count <= kShortLine && !task.middleGamma.empty();
  Form form;
  form.plan = {{{x, layout}}, layout, MemoryCost((byLines ? 8 : 16) * ElementCount(shape))};
  form.emit = [x, layout, byLines, task = std::move(task)](Emitter& emitter, const program::Operation& operation) {
    const BufferId source = emitter.Source(x, layout);
    const BufferId result = emitter.ResultOver(operation.results.front(), x, layout);
    if (byLines) {
      EmitLines(emitter, source, result, task);
    } else {
      EmitStatistics(emitter, source, result, task);
    }
  };
  return form;
}

std::vector<Form> LowerInstanceNorm(const LowerCall& call) {
  if (!ParametersAreKnown(call)) return {};
  const program::ValueId x = call.Operand("x");
  const Shape& shape = call.ShapeOf(x);
  std::vector<bool> reduced(shape.size(), true);
  reduced[0] = reduced[1] = false;
  const std::vector<float> gamma = FloatsOr(call, "gamma", shape[1], 1.0F);
  const std::vector<float> beta = FloatsOr(call, "beta", shape[1], 0.0F);
  std::vector<Form> forms;
  for (const Layout layout : LayoutsOf(shape)) {
    const std::optional<ReduceView> view = ViewOf(shape, layout, reduced);
    if (!view) continue;
    StatisticsTask task{*view, static_cast<double>(call.call.Float("epsilon")), {}, {}, {}, {}};
    // In every layout the groups [outer, inner] are images and their channels in order: blocks follow each other.
    for (std::int64_t image = 0; image < shape[0]; ++image) {
      task.groupGamma.insert(task.groupGamma.end(), gamma.begin(), gamma.end());
      task.groupBeta.insert(task.groupBeta.end(), beta.begin(), beta.end());
    }
    forms.push_back(StatisticsForm(x, shape, layout, std::move(task)));
  }
  return forms;
}

std::vector<Form> LowerLayerNorm(const LowerCall& call) {
  if (!ParametersAreKnown(call)) return {};
  const program::ValueId x = call.Operand("x");
  const Shape& shape = call.ShapeOf(x);
  const std::vector<std::size_t> axes = program::LayerNormAxes(call.call);
  if (!std::ranges::is_sorted(axes)) return {};
  std::vector<bool> reduced(shape.size(), false);
  std::int64_t count = 1;
  for (const std::size_t axis : axes) {
    reduced[axis] = true;
    count *= shape[axis];
  }
  std::vector<Form> forms;
  for (const Layout layout : LayoutsOf(shape)) {
    if (layout != Layout::Plain && axes.size() != 1) continue;  // gamma's order would not be that of memory
    const std::optional<ReduceView> view = ViewOf(shape, layout, reduced);
    if (!view) continue;
    StatisticsTask task{*view, static_cast<double>(call.call.Float("epsilon")), {}, {}, {}, {}};
    task.middleGamma = FloatsOr(call, "gamma", count, 1.0F);
    task.middleBeta = FloatsOr(call, "beta", count, 0.0F);
    forms.push_back(StatisticsForm(x, shape, layout, std::move(task)));
  }
  return forms;
}

}  // namespace

std::vector<LoweringEntry> NormalizationLowerings() {
  return {{"batch_norm", LowerBatchNorm}, {"instance_norm", LowerInstanceNorm}, {"layer_norm", LowerLayerNorm}};
}

}  // namespace ulmora::engine::cpu
