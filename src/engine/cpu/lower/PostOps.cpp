#include "engine/cpu/lower/PostOps.h"

#include "engine/cpu/lower/FusedStep.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <vector>

namespace ulmora::engine::cpu {
namespace {

using dnnl::algorithm;
using onednn::Eltwise;

/// Builds the post-operations of one operation step by step.
class Builder {
 public:
  Builder(const LowerCall& call, const PostOpsTarget& target)
      : call_(call), target_(target), shape_(call.ShapeOf(call.result())) {}

  /// False if the step is beyond post-operations.
  bool Append(const program::FusedStep& step) {
    if (const std::optional<TensorStep> combination = TensorStepOf(call_, step)) return AppendTensor(*combination);
    const std::optional<std::vector<Eltwise>> functions = FunctionsOf(call_, step);
    if (!functions) return false;
    return std::ranges::all_of(*functions, [this](const Eltwise& function) { return AppendFunction(function); });
  }

  PostOps Finish() {
    result_.attributes.set_post_ops(list_);
    return std::move(result_);
  }

 private:
  static const std::map<std::string_view, algorithm> kBinary;

  /// The library of version 2 keeps one set of parameters for each function: of two different ones of a kind, both
  /// would run as the first.
  bool AppendFunction(const Eltwise& function) {
    const auto clashes = [&function](const Eltwise& other) {
      return other.algorithm == function.algorithm && (other.alpha != function.alpha || other.beta != function.beta);
    };
    if (std::ranges::any_of(functions_, clashes)) return false;
    try {
      onednn::AppendEltwise(list_, function);
    } catch (const dnnl::error&) {
      return false;  // parameters that the library does not take, such as NaN for a bound
    }
    functions_.push_back(function);
    return true;
  }

  bool AppendTensor(const TensorStep& step) {
    const program::ValueId other = step.other;
    const std::optional<Shape> shape = TargetShapeOf(other);
    if (!shape) return false;
    algorithm operation = kBinary.at(step.key);
    if (!step.previousFirst && step.key == "real_div") return false;
    if (!step.previousFirst && step.key == "sub") {
      if (!AppendFunction({algorithm::eltwise_linear, -1.0F, 0.0F})) return false;
      operation = algorithm::binary_add;
    }
    const bool isConstant = call_.program.at(other).constant.has_value();
    const bool canSum = operation == algorithm::binary_add && !isConstant && !result_.sum && Dies(other);
    if (canSum) {
      result_.sum = other;
      list_.append_sum(1.0F);
      return true;
    }
    const int argument = DNNL_ARG_ATTR_MULTIPLE_POST_OP(list_.len()) | DNNL_ARG_SRC_1;
    list_.append_binary(operation, Descriptor(*shape, target_.layout));
    result_.extras.push_back({argument, other, *shape});
    return true;
  }

  /// Shape of the other operand beside the target: the target's if it has the result's, channels alone if it is a
  /// constant with one element for each; none otherwise.
  [[nodiscard]] std::optional<Shape> TargetShapeOf(program::ValueId other) const {
    Shape shape = call_.ShapeOf(other);
    if (shape == shape_) return target_.shape;
    if (!call_.program.at(other).constant || shape.size() > shape_.size()) return std::nullopt;
    shape.insert(shape.begin(), shape_.size() - shape.size(), 1);
    Shape channels(shape_.size(), 1);
    channels[target_.resultChannelAxis] = shape_[target_.resultChannelAxis];
    if (shape != channels) return std::nullopt;
    Shape beside(target_.shape.size(), 1);
    beside[target_.channelAxis] = target_.shape[target_.channelAxis];
    return beside;
  }

  [[nodiscard]] bool Dies(program::ValueId id) const {
    return std::ranges::find(call_.diesHere, id) != call_.diesHere.end();
  }

  const LowerCall& call_;
  const PostOpsTarget& target_;
  const Shape& shape_;
  dnnl::post_ops list_;
  std::vector<Eltwise> functions_;
  PostOps result_;
};

const std::map<std::string_view, algorithm> Builder::kBinary = {
    {"add", algorithm::binary_add},      {"sub", algorithm::binary_sub},     {"mul", algorithm::binary_mul},
    {"real_div", algorithm::binary_div}, {"maximum", algorithm::binary_max}, {"minimum", algorithm::binary_min},
};

}  // namespace

std::optional<PostOps> MakePostOps(const LowerCall& call, std::size_t count, const PostOpsTarget& target) {
  Builder builder(call, target);
  for (std::size_t i = 0; i < count; ++i) {
    if (!builder.Append(call.operation.fused[i])) return std::nullopt;
  }
  return builder.Finish();
}

void AddNeeds(const PostOps& postOps, Layout layout, const program::Program& program, std::vector<Need>& needs) {
  if (postOps.sum) needs.push_back({*postOps.sum, layout});
  for (const PostOps::Extra& extra : postOps.extras) {
    if (!program.at(extra.value).constant) needs.push_back({extra.value, layout});
  }
}

BufferId PostOpsResult(Emitter& emitter, const PostOps& postOps, program::ValueId result, Layout layout) {
  return postOps.sum ? emitter.ResultFrom(result, *postOps.sum, layout) : emitter.Result(result, layout);
}

void AddArguments(Emitter& emitter, const PostOps& postOps, Layout layout, std::vector<Argument>& arguments) {
  for (const PostOps::Extra& extra : postOps.extras) {
    const onednn::Desc wanted = Descriptor(extra.shape, layout);
    const bool isConstant = emitter.program().at(extra.value).constant.has_value();
    const BufferId buffer = isConstant ? emitter.SourceAs(extra.value, Descriptor(extra.shape, Layout::Plain), wanted)
                                       : emitter.Source(extra.value, layout);
    arguments.push_back({extra.argument, wanted, buffer});
  }
}

}  // namespace ulmora::engine::cpu
