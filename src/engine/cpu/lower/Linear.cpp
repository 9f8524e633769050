// Matrix products by the library: linear and matmul.

#include "engine/cpu/lower/Families.h"
#include "engine/cpu/lower/Matrices.h"
#include "engine/cpu/lower/PostOps.h"
#include "engine/program/ops/MatmulDims.h"

#include <optional>
#include <utility>

namespace ulmora::engine::cpu {
namespace {

using onednn::Desc;

constexpr auto kFloat = dnnl::memory::data_type::f32;

/// A product as the library sees it. Weights that are constants may be put into another order.
struct ProductTask {
  Desc source;
  Desc givenWeights;
  Desc wantedWeights;
  Desc bias;
  Desc result;
  PostOpsTarget target;
};

struct PreparedProduct {
  ProductTask task;
  dnnl::matmul::primitive_desc description;
  PostOps postOps;
  program::ValueId x = 0;
  program::ValueId y = 0;
  std::optional<program::ValueId> bias;
};

void EmitProduct(const PreparedProduct& product, Emitter& emitter, const program::Operation& operation) {
  const auto& description = product.description;
  const ProductTask& task = product.task;
  std::vector<Argument> arguments = {{DNNL_ARG_SRC, task.source, emitter.Source(product.x, Layout::Plain)},
                                     {DNNL_ARG_WEIGHTS, description.weights_desc(),
                                      emitter.SourceAs(product.y, task.givenWeights, description.weights_desc())}};
  if (product.bias) {
    arguments.push_back({DNNL_ARG_BIAS, task.bias, emitter.SourceAs(*product.bias, task.bias, task.bias)});
  }
  AddArguments(emitter, product.postOps, Layout::Plain, arguments);
  const BufferId result = PostOpsResult(emitter, product.postOps, operation.results.front(), Layout::Plain);
  arguments.push_back({DNNL_ARG_DST, task.result, result});
  emitter.Add(dnnl::matmul(description), std::move(arguments), description.scratchpad_desc());
}

/// The one form of x times y; none if the library cannot do it at all.
std::vector<Form> ProductForms(const LowerCall& call, std::string_view left, std::string_view right,
                               const ProductTask& task, double operations) {
  for (const auto reference : {onednn::Reference::Refused, onednn::Reference::Accepted}) {
    const auto describe = [&](const PostOps& postOps) {
      return onednn::DescribeMatmul(reference, postOps.attributes, task.source, task.wantedWeights, task.bias,
                                    task.result);
    };
    const auto found = WithMostPostOps(call, task.target, describe);
    if (!found) continue;
    PreparedProduct product{task, found->description, found->postOps, call.Operand(left), call.Operand(right), {}};
    if (task.bias.get_size() > 0) product.bias = call.Operand("bias");
    Form form;
    form.fused = found->fused;
    form.plan.needs = {{product.x, Layout::Plain}};
    if (!call.program.at(product.y).constant) form.plan.needs.push_back({product.y, Layout::Plain});
    AddNeeds(found->postOps, Layout::Plain, call.program, form.plan.needs);
    form.plan.cost = ArithmeticCost(operations) + MemoryCost(0);
    form.emit = [product = std::move(product)](Emitter& emitter, const program::Operation& operation) {
      EmitProduct(product, emitter, operation);
    };
    return {std::move(form)};
  }
  return {};
}

std::vector<Form> LowerLinear(const LowerCall& call) {
  const Shape& weight = call.call.ShapeOf("weight");
  const std::int64_t inner = weight[1];
  // Constants may be empty; nothing is left to multiply then, and the bias alone is the result.
  if (inner == 0) return {};
  const std::int64_t columns = weight[0];
  const std::int64_t rows = ElementCount(call.call.ShapeOf("x")) / inner;
  ProductTask task;
  task.source = Matrices({}, rows, inner, false);
  task.givenWeights = Matrices({}, inner, columns, true);
  const bool isConstant = call.program.at(call.Operand("weight")).constant.has_value();
  task.wantedWeights = isConstant ? Desc({inner, columns}, kFloat, dnnl::memory::format_tag::any) : task.givenWeights;
  if (call.call.Has("bias")) task.bias = Matrices({}, 1, columns, false);
  task.result = Matrices({}, rows, columns, false);
  task.target = {{rows, columns}, Layout::Plain, 1, call.ShapeOf(call.result()).size() - 1};
  return ProductForms(call, "x", "weight", task,
                      2.0 * static_cast<double>(rows * inner) * static_cast<double>(columns));
}

std::vector<Form> LowerMatmul(const LowerCall& call) {
  if (!call.IsFloat(call.Operand("x")) || !call.IsFloat(call.Operand("y"))) return {};
  const program::MatmulDims dims = program::DimsOfMatmul(call.call);
  const std::size_t rank = dims.batch.size();
  ProductTask task;
  task.source = Matrices(Widened(dims.xBatch, rank), dims.rows, dims.inner, dims.transposeX);
  task.givenWeights = Matrices(Widened(dims.yBatch, rank), dims.inner, dims.columns, dims.transposeY);
  task.wantedWeights = task.givenWeights;
  task.result = Matrices(dims.batch, dims.rows, dims.columns, false);
  Shape whole = dims.batch;
  whole.insert(whole.end(), {dims.rows, dims.columns});
  const std::size_t resultRank = call.ShapeOf(call.result()).size();
  // The result's last dimension are the columns or, of a product with a vector, the rows.
  const std::size_t lastKept = whole.size() - (call.call.ShapeOf("y").size() == 1 ? 2 : 1);
  task.target = {whole, Layout::Plain, lastKept, resultRank > 0 ? resultRank - 1 : 0};
  const double operations = 2.0 * static_cast<double>(ElementCount(dims.batch)) * static_cast<double>(dims.rows) *
                            static_cast<double>(dims.inner) * static_cast<double>(dims.columns);
  return ProductForms(call, "x", "y", task, operations);
}

}  // namespace

std::vector<LoweringEntry> LinearLowerings() {
  return {{"linear", LowerLinear}, {"matmul", LowerMatmul}};
}

}  // namespace ulmora::engine::cpu
