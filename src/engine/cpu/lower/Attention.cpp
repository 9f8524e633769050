// scaled_dot_product_attention: two matrix products with a softmax between them.

#include "engine/cpu/kernels/Broadcast.h"
#include "engine/cpu/lower/Broadcasting.h"
#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/Matrices.h"
#include "engine/program/ShapeMath.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

using onednn::Desc;

struct Sum {
  float operator()(float score, float mask) const { return score + mask; }
};
using MaskKernel = BroadcastKernel<Sum, float, float, float>;

/// The steps with everything that they need but buffers.
struct AttentionTask {
  Desc query, key, scores, value, result;
  dnnl::matmul::primitive_desc compare;  ///< query times key, scaled
  onednn::Softmax::primitive_desc softmax;
  dnnl::matmul::primitive_desc combine;  ///< scores times value
  std::optional<Tensor> mask;
  std::optional<MaskKernel> addMask;
};

Shape BatchOf(const Shape& shape) {
  return {shape.begin(), shape.end() - 2};
}

/// The mask can be added if it is a constant of finite numbers: a row that is masked altogether has a meaning of its
/// own, which is left to the reference evaluation.
bool IsSimple(const Tensor& mask) {
  return mask.storage() == Storage::Float &&
         std::ranges::all_of(mask.floats(), [](float value) { return std::isfinite(value); });
}

MaskKernel MaskKernelFor(const Shape& mask, const Shape& scores) {
  BroadcastLoops<2> loops;
  loops.counts = scores;
  const std::vector<std::int64_t> strides = program::BroadcastStrides(mask, scores);
  const std::vector<std::int64_t> own = program::RowMajorStrides(scores);
  for (std::size_t i = 0; i < scores.size(); ++i) loops.strides.push_back({own[i], strides[i]});
  return {Sum{}, std::move(loops)};
}

std::optional<AttentionTask> MakeTask(const LowerCall& call) {
  const Shape& query = call.call.ShapeOf("query");
  const Shape& key = call.call.ShapeOf("key");
  const Shape& value = call.call.ShapeOf("value");
  const Shape batch = BatchOf(call.ShapeOf(call.result()));
  const std::int64_t rows = query.end()[-2];
  const std::int64_t columns = key.end()[-2];
  const std::int64_t inner = query.back();
  Shape scores = batch;
  scores.insert(scores.end(), {rows, columns});

  AttentionTask task;
  task.query = Matrices(Widened(BatchOf(query), batch.size()), rows, inner, false);
  task.key = Matrices(Widened(BatchOf(key), batch.size()), inner, columns, true);
  task.scores = Matrices(batch, rows, columns, false);
  task.value = Matrices(Widened(BatchOf(value), batch.size()), columns, value.back(), false);
  task.result = Matrices(batch, rows, value.back(), false);
  dnnl::primitive_attr scaled = onednn::PlainAttributes();
  dnnl::post_ops scale;
  const float factor = 1.0F / std::sqrt(static_cast<float>(inner));
  onednn::AppendEltwise(scale, {dnnl::algorithm::eltwise_linear, factor});
  scaled.set_post_ops(scale);
  const auto accepted = onednn::Reference::Accepted;
  const auto plain = onednn::PlainAttributes();
  const auto compare = onednn::DescribeMatmul(accepted, scaled, task.query, task.key, {}, task.scores);
  const auto softmax =
      onednn::DescribeSoftmax(accepted, plain, task.scores, task.scores, static_cast<int>(scores.size()) - 1);
  const auto combine = onednn::DescribeMatmul(accepted, plain, task.scores, task.value, {}, task.result);
  if (!compare || !softmax || !combine) return std::nullopt;
  task.compare = *compare;
  task.softmax = *softmax;
  task.combine = *combine;
  if (call.call.Has("attn_mask")) {
    task.mask = call.call.Value("attn_mask");
    task.addMask = MaskKernelFor(task.mask->shape(), scores);
  }
  return task;
}

void EmitAttention(const AttentionTask& task, Emitter& emitter, const program::Operation& operation) {
  const auto source = [&](std::size_t parameter) {
    return emitter.Source(operation.arguments[parameter].front(), Layout::Plain);
  };
  const BufferId scores = emitter.Scratch(static_cast<std::int64_t>(task.scores.get_size()));
  emitter.Add(dnnl::matmul(task.compare),
              {{DNNL_ARG_SRC, task.query, source(0)},
               {DNNL_ARG_WEIGHTS, task.key, source(1)},
               {DNNL_ARG_DST, task.scores, scores}},
              task.compare.scratchpad_desc());
  if (task.addMask) {
    emitter.Add([kernel = *task.addMask](const Operands& at) { kernel.Run(at.at(0), at.at<const float>(0), at.at(1)); },
                {scores, emitter.Constant(*task.mask)});
  }
  emitter.Add(onednn::Softmax(task.softmax), {{DNNL_ARG_SRC, task.scores, scores}, {DNNL_ARG_DST, task.scores, scores}},
              task.softmax.scratchpad_desc());
  emitter.Add(dnnl::matmul(task.combine),
              {{DNNL_ARG_SRC, task.scores, scores},
               {DNNL_ARG_WEIGHTS, task.value, source(2)},
               {DNNL_ARG_DST, task.result, emitter.Result(operation.results.front(), Layout::Plain)}},
              task.combine.scratchpad_desc());
}

std::vector<Form> LowerAttention(const LowerCall& call) {
  const bool masked = call.call.Has("attn_mask");
  if (masked && (!call.call.IsKnown("attn_mask") || !IsSimple(call.call.Value("attn_mask")))) return {};
  auto task = MakeTask(call);
  if (!task) return {};
  Form form;
  for (const std::string_view parameter : {"query", "key", "value"}) {
    form.plan.needs.push_back({call.Operand(parameter), Layout::Plain});
  }
  form.plan.cost = MemoryCost(static_cast<std::int64_t>(4 * task->scores.get_size()));
  form.emit = [task = std::move(*task)](Emitter& emitter, const program::Operation& operation) {
    EmitAttention(task, emitter, operation);
  };
  return {std::move(form)};
}

}  // namespace

std::vector<LoweringEntry> AttentionLowerings() {
  return {{"scaled_dot_product_attention", LowerAttention}};
}

}  // namespace ulmora::engine::cpu
