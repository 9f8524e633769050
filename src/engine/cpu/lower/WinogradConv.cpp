#include "engine/cpu/lower/WinogradConv.h"

#include "engine/cpu/RoundUp.h"
#include "engine/cpu/kernels/winograd/Winograd.h"
#include "engine/cpu/lower/FusedStep.h"

#include <omp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace ulmora::engine::cpu {
namespace {

using program::ConvGeometry;
using program::WindowAxis;
using Kind = WinogradStage::Kind;

/// From this many channels in and out the algorithm is faster than a direct kernel on every image from 16 x 16 up.
constexpr std::int64_t kFewestChannels = 32;

/// From this many result pixels on, transforming the weights costs less than a tenth of the convolution.
constexpr std::int64_t kPixelsWorthTransform = 4096;

/// A stage with the value that it reads, if it reads one.
struct Stage {
  WinogradStage stage;
  std::optional<program::ValueId> tensor;
};

/// Everything that does not depend on the layout.
struct Task {
  WinogradTask shape;
  std::vector<Stage> stages;
  std::size_t fused = 0;  ///< how many fused steps the stages do
  double cost = 0.0;
  std::int64_t keptBytes = 0;  ///< of all convolutions together
};

bool AppendFunction(const onednn::Eltwise& function, std::vector<Stage>& stages) {
  switch (function.algorithm) {
    case dnnl::algorithm::eltwise_relu:
      stages.push_back({{Kind::Relu, function.alpha, 0.0F, nullptr}, std::nullopt});
      return true;
    case dnnl::algorithm::eltwise_linear:
      stages.push_back({{Kind::Linear, function.alpha, function.beta, nullptr}, std::nullopt});
      return true;
    case dnnl::algorithm::eltwise_clip:
      stages.push_back({{Kind::Clip, function.alpha, function.beta, nullptr}, std::nullopt});
      return true;
    default:
      return false;
  }
}

bool AppendTensor(const LowerCall& call, const TensorStep& step, std::vector<Stage>& stages) {
  if (call.ShapeOf(step.other) != call.ShapeOf(call.result())) return false;
  const auto append = [&](Kind kind, float alpha) {
    stages.push_back({{kind, alpha, 0.0F, nullptr}, step.other});
    return true;
  };
  if (step.key == "add") return append(Kind::Add, 1.0F);
  if (step.key == "mul") return append(Kind::Multiply, 1.0F);
  if (step.key != "sub") return false;
  if (step.previousFirst) return append(Kind::Add, -1.0F);
  stages.push_back({{Kind::Linear, -1.0F, 0.0F, nullptr}, std::nullopt});
  return append(Kind::Add, 1.0F);
}

/// Takes the fused step into the stages; false, with the stages as they were, if it is beyond them.
bool AppendStep(const LowerCall& call, const program::FusedStep& step, std::vector<Stage>& stages) {
  if (const auto combination = TensorStepOf(call, step)) return AppendTensor(call, *combination, stages);
  const auto functions = FunctionsOf(call, step);
  if (!functions) return false;
  const std::size_t before = stages.size();
  for (const onednn::Eltwise& function : *functions) {
    if (!AppendFunction(function, stages)) {
      stages.resize(before);
      return false;
    }
  }
  return true;
}

bool Suits(const LowerCall& call, const ConvGeometry& g) {
  const auto fits = [](std::int64_t channels) {
    return channels >= kFewestChannels && channels % onednn::ChannelBlock() == 0;
  };
  return g.axes.size() == 2 && g.groups == 1 && fits(g.inputChannels) && fits(g.outputChannels) &&
         call.program.at(call.Operand("weight")).constant && std::ranges::all_of(g.axes, [](const WindowAxis& axis) {
           return axis.kernel == 3 && axis.stride == 1 && axis.dilation == 1;
         });
}

/// Time against the best direct kernel, as measured: the transforms weigh less the more channels share them.
double TimeAgainstDirect(const WinogradTask& shape, std::int64_t rows) {
  const double channels = static_cast<double>(std::min(shape.inputs, shape.outputs));
  const std::int64_t tiles =
      shape.images * DivideUp(shape.resultHeight, kWinogradTile) * DivideUp(shape.resultWidth, kWinogradTile);
  const double computed = static_cast<double>(RoundUp(tiles, rows) * kWinogradTile * kWinogradTile);
  const double wanted = static_cast<double>(shape.images * shape.resultHeight * shape.resultWidth);
  return (0.45 + 9.0 / channels) * computed / wanted;
}

Task MakeTask(const LowerCall& call, const ConvGeometry& g, double directCost, std::int64_t rows) {
  Task task;
  task.keptBytes = call.options.keptWinogradBytes;
  const WindowAxis& y = g.axes[0];
  const WindowAxis& x = g.axes[1];
  WinogradTask& shape = task.shape;
  shape.images = g.batch;
  shape.inputs = g.inputChannels;
  shape.outputs = g.outputChannels;
  shape.height = y.input;
  shape.width = x.input;
  shape.resultHeight = y.output;
  shape.resultWidth = x.output;
  shape.padTop = y.padBefore;
  shape.padLeft = x.padBefore;
  for (const program::FusedStep& step : call.operation.fused) {
    if (!AppendStep(call, step, task.stages)) break;
    ++task.fused;
  }
  const auto separate = static_cast<std::int64_t>(call.operation.fused.size() - task.fused);
  task.cost = directCost * TimeAgainstDirect(shape, rows);
  if (separate > 0) task.cost += MemoryCost(separate * 3 * 4 * ElementCount(call.ShapeOf(call.result())));
  return task;
}

PixelStrides StridesOf(std::int64_t channels, std::int64_t height, std::int64_t width, Layout layout) {
  const std::int64_t lanes = onednn::ChannelBlock();
  const std::int64_t pixel = layout == Layout::Blocked ? lanes : channels;
  const std::int64_t block = layout == Layout::Blocked ? height * width * lanes : lanes;
  return {channels * height * width, block, width * pixel, pixel};
}

/// The buffer of the result: that of a tensor which a stage reads, if nothing else needs it.
BufferId ResultBuffer(Emitter& emitter, const program::Operation& operation, const std::vector<Stage>& stages,
                      Layout layout) {
  const program::ValueId result = operation.results.front();
  for (const Stage& stage : stages) {
    // The source is read around each result, so that it must not be overwritten.
    const bool isSource = stage.tensor == operation.arguments[0].front();
    if (stage.tensor && !isSource && emitter.CanReuse(result, *stage.tensor, layout)) {
      return emitter.ResultOver(result, *stage.tensor, layout);
    }
  }
  return emitter.Result(result, layout);
}

/// Indices of the step's buffers.
enum Buffer : std::size_t { kSource, kWeights, kPacked, kScratch, kResult, kFirstOptional };

void EmitWinograd(const Task& task, const WinogradPlan& plan, Layout layout, Emitter& emitter,
                  const program::Operation& operation) {
  const program::ValueId weight = OperandsOf(operation, "weight").front();
  const Tensor& weights = *emitter.program().at(weight).constant;
  const auto pack = [&plan](const float* from, float* to) { plan.Pack(from, to); };
  const auto pixels = task.shape.resultHeight * task.shape.resultWidth * task.shape.images;
  const bool keep = emitter.packedBytes() + plan.packedBytes() <= task.keptBytes || pixels < kPixelsWorthTransform;
  const BufferId source = emitter.Source(OperandsOf(operation, "x").front(), layout);
  const BufferId plain = emitter.Constant(weights);
  const BufferId packed =
      keep ? emitter.PackedConstant(weights, plan.packedBytes(), pack) : emitter.Scratch(plan.packedBytes());
  std::vector<BufferId> buffers = {source, plain, packed, emitter.Scratch(plan.scratchBytes()), 0};
  const bool hasBias = !OperandsOf(operation, "bias").empty();
  if (hasBias) buffers.push_back(emitter.Source(OperandsOf(operation, "bias").front(), Layout::Plain));
  for (const Stage& stage : task.stages) {
    if (stage.tensor) buffers.push_back(emitter.Source(*stage.tensor, layout));
  }
  buffers[kResult] = ResultBuffer(emitter, operation, task.stages, layout);

  WinogradTask prepared = task.shape;
  prepared.from = StridesOf(prepared.inputs, prepared.height, prepared.width, layout);
  prepared.to = StridesOf(prepared.outputs, prepared.resultHeight, prepared.resultWidth, layout);
  std::vector<WinogradStage> stages;
  std::vector<bool> reads;
  for (const Stage& stage : task.stages) {
    stages.push_back(stage.stage);
    reads.push_back(stage.tensor.has_value());
  }
  const auto run = [prepared, plan, keep, hasBias, reads, stages](const Operands& at) mutable {
    std::size_t next = kFirstOptional;
    prepared.source = at.at<float>(kSource);
    prepared.weights = at.at<float>(kPacked);
    prepared.result = at.at<float>(kResult);
    prepared.bias = hasBias ? at.at<float>(next++) : nullptr;
    for (std::size_t i = 0; i < stages.size(); ++i) stages[i].tensor = reads[i] ? at.at<float>(next++) : nullptr;
    prepared.stages = stages.data();
    prepared.stageCount = static_cast<int>(stages.size());
    if (!keep) plan.Pack(at.at<float>(kWeights), at.at<float>(kPacked));
    plan.Run(prepared, at.at<float>(kScratch));
  };
  emitter.Add(run, std::move(buffers), "winograd");
}

}  // namespace

std::vector<Form> WinogradForms(const LowerCall& call, const ConvGeometry& geometry, double directCost) {
  const WinogradKernels* kernels = FindWinograd(onednn::ChannelBlock());
  if (kernels == nullptr || !call.options.winograd || !Suits(call, geometry)) return {};
  const Task task = MakeTask(call, geometry, directCost, kernels->rows);
  const WinogradPlan plan(*kernels, task.shape, omp_get_max_threads());
  std::vector<Form> forms;
  for (const Layout layout : {Layout::Blocked, Layout::ChannelsLast}) {
    Form form;
    form.plan.needs = {{call.Operand("x"), layout}};
    for (const Stage& stage : task.stages) {
      if (stage.tensor) form.plan.needs.push_back({*stage.tensor, layout});
    }
    form.plan.result = layout;
    form.plan.cost = task.cost;
    form.fused = task.fused;
    form.emit = [task, plan, layout](Emitter& emitter, const program::Operation& operation) {
      EmitWinograd(task, plan, layout, emitter, operation);
    };
    forms.push_back(std::move(form));
  }
  return forms;
}

}  // namespace ulmora::engine::cpu
