// conv as the library's convolution or our own Winograd kernels, and conv_transpose as the library's deconvolution.

#include "engine/cpu/RoundUp.h"
#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/PostOps.h"
#include "engine/cpu/lower/WinogradConv.h"
#include "engine/program/ops/ConvGeometry.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <type_traits>

namespace ulmora::engine::cpu {
namespace {

using dnnl::algorithm;
using onednn::Desc;
using onednn::Dims;
using program::ConvGeometry;
using program::WindowAxis;

constexpr auto kFloat = dnnl::memory::data_type::f32;

/// A layout for source and result in which the library may have a kernel. `slowdown` is the time against the best
/// direct kernel, as measured over the channel counts and sizes of denoising networks.
struct Candidate {
  Layout source;
  Layout result;
  algorithm kind;
  double slowdown;
};

/// One use of conv or conv_transpose with everything that does not depend on the form.
struct ConvTask {
  ConvGeometry geometry;
  Shape sourceShape;
  Shape resultShape;
  Desc givenWeights;  ///< how the row-major elements of the package's weight stand for the library's dimensions
  Desc anyWeights;
  Desc bias;  ///< zero without one
  Dims strides, dilations, padBefore, padAfter;
};

/// The library's weight dimensions [groups,] O, I, K... The package's are [O, I, K...], transposed ones [I, O, K...].
void DescribeWeights(ConvTask& task, const Shape& kernel, bool transposed) {
  const ConvGeometry& g = task.geometry;
  const std::int64_t outputs = g.outputChannels / g.groups;
  const std::int64_t inputs = g.inputChannels / g.groups;
  const std::int64_t area = std::accumulate(kernel.begin(), kernel.end(), std::int64_t{1}, std::multiplies<>());
  Dims dims;
  Dims strides;
  if (g.groups > 1) {
    dims.push_back(g.groups);
    strides.push_back(outputs * inputs * area);
  }
  // One by one: GCC 14 sees an overflow in inserted ranges where there is none.
  dims.push_back(outputs);
  dims.push_back(inputs);
  strides.push_back(transposed ? area : inputs * area);
  strides.push_back(transposed ? outputs * area : area);
  for (const std::int64_t length : kernel) dims.push_back(length);
  for (const std::int64_t stride : program::RowMajorStrides(kernel)) strides.push_back(stride);
  task.givenWeights = Desc(dims, kFloat, strides);
  task.anyWeights = Desc(dims, kFloat, dnnl::memory::format_tag::any);
}

ConvTask MakeTask(const LowerCall& call, bool transposed) {
  ConvTask task;
  task.geometry = transposed ? ResolveConvTranspose(call.call) : ResolveConv(call.call);
  task.sourceShape = call.call.ShapeOf("x");
  task.resultShape = call.ShapeOf(call.result());
  const Shape& weight = call.call.ShapeOf("weight");
  DescribeWeights(task, Shape(weight.begin() + 2, weight.end()), transposed);
  if (call.call.Has("bias")) task.bias = Desc({task.geometry.outputChannels}, kFloat, dnnl::memory::format_tag::a);
  for (const WindowAxis& axis : task.geometry.axes) {
    task.strides.push_back(axis.stride);
    task.dilations.push_back(axis.dilation - 1);
    task.padBefore.push_back(axis.padBefore);
    task.padAfter.push_back(axis.padAfter);
  }
  return task;
}

std::int64_t RoundedToBlock(std::int64_t channels) {
  return RoundUp(channels, onednn::ChannelBlock());
}

/// Cost of the best direct kernel: of the multiplications, or of the memory traffic where there are few of those.
double DirectCost(const ConvTask& task, bool transposed) {
  const ConvGeometry& g = task.geometry;
  double operations = 2.0 * static_cast<double>(g.batch);
  for (const WindowAxis& axis : g.axes) {
    operations *= static_cast<double>(axis.kernel) * static_cast<double>(transposed ? axis.input : axis.output);
  }
  const bool depthwise = g.groups > 1 && g.groups == g.inputChannels;
  operations *= static_cast<double>(
      depthwise ? g.outputChannels : RoundedToBlock(g.inputChannels / g.groups) * RoundedToBlock(g.outputChannels));
  const std::int64_t bytes = 4 * (ElementCount(task.sourceShape) + ElementCount(task.resultShape));
  return std::max(ArithmeticCost(operations), MemoryCost(bytes));
}

bool IsStrided(const ConvTask& task) {
  return std::ranges::any_of(task.strides, [](std::int64_t stride) { return stride != 1; });
}

template <typename Primitive>
constexpr algorithm kDirect = std::is_same_v<Primitive, dnnl::convolution_forward> ? algorithm::convolution_direct
                                                                                   : algorithm::deconvolution_direct;

template <typename Primitive>
std::optional<typename Primitive::primitive_desc> DescribeTask(const ConvTask& task, algorithm kind, const Desc& source,
                                                               const Desc& result,
                                                               const dnnl::primitive_attr& attributes,
                                                               onednn::Reference reference) {
  return onednn::DescribeWindow<Primitive>(
      reference, attributes, kind,
      {source, task.anyWeights, task.bias, result, task.strides, task.dilations, task.padBefore, task.padAfter});
}

/// The layout that the library chooses by itself.
template <typename Primitive>
Layout PreferredLayout(const ConvTask& task) {
  const auto any = dnnl::memory::format_tag::any;
  const auto description = DescribeTask<Primitive>(task, kDirect<Primitive>, Desc(task.sourceShape, kFloat, any),
                                                   Desc(task.resultShape, kFloat, any), onednn::PlainAttributes(),
                                                   onednn::Reference::Refused);
  if (description) {
    for (const Layout layout : {Layout::ChannelsLast, Layout::Blocked}) {
      if (description->dst_desc() == Descriptor(task.resultShape, layout)) return layout;
    }
  }
  return Layout::Plain;
}

template <typename Primitive>
std::vector<Candidate> CandidatesFor(const ConvTask& task) {
  constexpr double kSecondBest = 1.18;
  constexpr double kBlockedStrided = 2.2;
  constexpr double kPlain = 1.6;
  const Layout preferred = PreferredLayout<Primitive>(task);
  const bool isConvolution = std::is_same_v<Primitive, dnnl::convolution_forward>;
  const double blockedTime = IsStrided(task) ? kBlockedStrided : kSecondBest;
  // A deconvolution is as fast in either layout of channels.
  const auto slowdown = [&](Layout layout, double otherwise) {
    return layout == preferred || !isConvolution ? 1.0 : otherwise;
  };
  return {{Layout::ChannelsLast, Layout::ChannelsLast, kDirect<Primitive>, slowdown(Layout::ChannelsLast, kSecondBest)},
          {Layout::Blocked, Layout::Blocked, kDirect<Primitive>, slowdown(Layout::Blocked, blockedTime)},
          // First layers: kernels that read a few planes directly.
          {Layout::Plain, Layout::Blocked, kDirect<Primitive>, slowdown(Layout::Blocked, kSecondBest)},
          {Layout::Plain, Layout::Plain, kDirect<Primitive>, kPlain}};
}

template <typename Description>
struct Prepared {
  ConvTask task;
  Candidate candidate;
  Description description;
  PostOps postOps;
};

template <typename Primitive>
void EmitConv(const Prepared<typename Primitive::primitive_desc>& prepared, Emitter& emitter,
              const program::Operation& operation) {
  const auto& description = prepared.description;
  const ConvTask& task = prepared.task;
  const Layout result = prepared.candidate.result;
  std::vector<Argument> arguments = {
      {DNNL_ARG_SRC, description.src_desc(),
       emitter.Source(OperandsOf(operation, "x").front(), prepared.candidate.source)},
      {DNNL_ARG_WEIGHTS, description.weights_desc(),
       emitter.SourceAs(OperandsOf(operation, "weight").front(), task.givenWeights, description.weights_desc())}};
  if (!OperandsOf(operation, "bias").empty()) {
    arguments.push_back(
        {DNNL_ARG_BIAS, task.bias, emitter.SourceAs(OperandsOf(operation, "bias").front(), task.bias, task.bias)});
  }
  AddArguments(emitter, prepared.postOps, result, arguments);
  const BufferId destination = PostOpsResult(emitter, prepared.postOps, operation.results.front(), result);
  arguments.push_back({DNNL_ARG_DST, description.dst_desc(), destination});
  emitter.Add(Primitive(description), std::move(arguments), description.scratchpad_desc());
}

/// The form for one candidate: none if the library has no kernel for it.
template <typename Primitive>
std::optional<Form> FormFor(const LowerCall& call, const ConvTask& task, const Candidate& candidate, double directCost,
                            onednn::Reference reference) {
  using Description = std::optional<typename Primitive::primitive_desc>;
  const auto describe = [&](const PostOps& postOps) {
    Description description =
        DescribeTask<Primitive>(task, candidate.kind, Descriptor(task.sourceShape, candidate.source),
                                Descriptor(task.resultShape, candidate.result), postOps.attributes, reference);
    const bool fuses = postOps.attributes.get_post_ops().len() > 0;
    const bool isTransposed = std::is_same_v<Primitive, dnnl::deconvolution_forward>;
    if (description && isTransposed && fuses && !onednn::DeconvolutionFuses(*description)) description.reset();
    if (description && candidate.result == Layout::ChannelsLast &&
        onednn::CombinesWrongly(*description, postOps.attributes)) {
      description.reset();
    }
    return description;
  };
  const auto found = WithMostPostOps(call, {task.resultShape, candidate.result}, describe);
  if (!found) return std::nullopt;
  Form form;
  form.fused = found->fused;
  form.plan.needs = {{call.Operand("x"), candidate.source}};
  AddNeeds(found->postOps, candidate.result, call.program, form.plan.needs);
  form.plan.result = candidate.result;
  const std::int64_t separate = static_cast<std::int64_t>(call.operation.fused.size() - found->fused);
  form.plan.cost = directCost * candidate.slowdown;
  if (separate > 0) form.plan.cost += MemoryCost(separate * 3 * 4 * ElementCount(task.resultShape));
  form.emit =
      [prepared = Prepared<typename Primitive::primitive_desc>{task, candidate, found->description, found->postOps}](
          Emitter& emitter, const program::Operation& operation) { EmitConv<Primitive>(prepared, emitter, operation); };
  return form;
}

template <typename Primitive>
std::vector<Form> LowerWindow(const LowerCall& call, bool transposed) {
  if (!HasChannels(call.call.ShapeOf("x"))) return {};
  const ConvTask task = MakeTask(call, transposed);
  const double cost = DirectCost(task, transposed);
  std::vector<Form> forms;
  for (const Candidate& candidate : CandidatesFor<Primitive>(task)) {
    auto form = FormFor<Primitive>(call, task, candidate, cost, onednn::Reference::Refused);
    if (form) forms.push_back(std::move(*form));
  }
  if (!transposed) {
    for (Form& form : WinogradForms(call, task.geometry, cost)) forms.push_back(std::move(form));
  }
  if (forms.empty()) {
    const Candidate slow = {Layout::Plain, Layout::Plain, kDirect<Primitive>, 200.0};
    auto form = FormFor<Primitive>(call, task, slow, cost, onednn::Reference::Accepted);
    if (form) forms.push_back(std::move(*form));
  }
  return forms;
}

std::vector<Form> LowerConv(const LowerCall& call) {
  return LowerWindow<dnnl::convolution_forward>(call, false);
}

std::vector<Form> LowerConvTranspose(const LowerCall& call) {
  return LowerWindow<dnnl::deconvolution_forward>(call, true);
}

}  // namespace

std::vector<LoweringEntry> ConvLowerings() {
  return {{"conv", LowerConv}, {"conv_transpose", LowerConvTranspose}};
}

}  // namespace ulmora::engine::cpu
