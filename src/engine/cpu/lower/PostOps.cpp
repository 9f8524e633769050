#include "engine/cpu/lower/PostOps.h"

#include "engine/cpu/lower/EltwiseMap.h"

#include <algorithm>
#include <limits>
#include <map>
#include <string_view>

namespace ulmora::engine::cpu {
namespace {

using dnnl::algorithm;
using onednn::Eltwise;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// Builds the post-operations of one operation step by step.
class Builder {
 public:
  Builder(const LowerCall& call, const PostOpsTarget& target)
      : call_(call), target_(target), shape_(call.ShapeOf(call.result())) {}

  /// False if the step is beyond post-operations.
  bool Append(const program::FusedStep& step) {
    const std::string_view key = step.definition->key;
    if (kBinary.contains(key)) return AppendBinary(step, key);
    const std::optional<std::vector<Eltwise>> functions = EltwiseOf(CallOf(step));
    if (!functions) return false;
    for (const Eltwise& function : *functions) AppendFunction(function);
    return true;
  }

  PostOps Finish() {
    result_.attributes.set_post_ops(list_);
    return std::move(result_);
  }

 private:
  static const std::map<std::string_view, algorithm> kBinary;

  [[nodiscard]] program::OpCall CallOf(const program::FusedStep& step) const {
    std::vector<std::vector<program::OpCall::Operand>> operands;
    for (const program::Operands& parameter : step.arguments) {
      std::vector<program::OpCall::Operand>& row = operands.emplace_back();
      for (const program::ValueId id : parameter) {
        const program::Value& value = call_.program.at(id == program::kPrevious ? call_.result() : id);
        row.push_back({value.type, value.constant ? &*value.constant : nullptr});
      }
    }
    return {*step.definition, call_.operation.name, call_.program.opset, std::move(operands)};
  }

  void AppendFunction(const Eltwise& function) { onednn::AppendEltwise(list_, function); }

  bool AppendBinary(const program::FusedStep& step, std::string_view key) {
    const program::ValueId x = step.arguments.at(0).at(0);
    const program::ValueId y = step.arguments.at(1).at(0);
    if (x == program::kPrevious && y == program::kPrevious) {
      if (key != "mul") return false;
      AppendFunction({algorithm::eltwise_square});
      return true;
    }
    const bool flowsFirst = x == program::kPrevious;
    const program::ValueId other = flowsFirst ? y : x;
    if (!call_.IsFloat(other)) return false;
    const std::optional<Tensor>& constant = call_.program.at(other).constant;
    if (constant && constant->count() == 1) return AppendScalar(key, flowsFirst, constant->floats().front());
    return AppendTensor(key, flowsFirst, other);
  }

  bool AppendScalar(std::string_view key, bool flowsFirst, float c) {
    if (key == "add") {
      AppendFunction({algorithm::eltwise_linear, 1.0F, c});
    } else if (key == "sub") {
      AppendFunction({algorithm::eltwise_linear, flowsFirst ? 1.0F : -1.0F, flowsFirst ? -c : c});
    } else if (key == "mul") {
      AppendFunction({algorithm::eltwise_linear, c, 0.0F});
    } else if (key == "maximum") {
      AppendFunction({algorithm::eltwise_clip, c, kInfinity});
    } else if (key == "minimum") {
      AppendFunction({algorithm::eltwise_clip, -kInfinity, c});
    } else {
      return false;  // dividing by c is not multiplying by its rounded inverse
    }
    return true;
  }

  bool AppendTensor(std::string_view key, bool flowsFirst, program::ValueId other) {
    const std::optional<Shape> shape = TargetShapeOf(other);
    if (!shape) return false;
    algorithm operation = kBinary.at(key);
    if (!flowsFirst && key == "real_div") return false;
    if (!flowsFirst && key == "sub") {
      AppendFunction({algorithm::eltwise_linear, -1.0F, 0.0F});
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
