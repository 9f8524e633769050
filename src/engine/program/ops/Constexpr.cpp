// Weights that a package keeps as small integers with scales, or in half precision. They are unpacked when the program
// is specialized, since all of their operands are constants.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/BlockGrid.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Convert.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"

#include <string>

namespace ulmora::engine::program {
namespace {

using Types = std::vector<TensorType>;
using Tensors = std::vector<Tensor>;

/// The parameter is one number, or a vector with one for each position along the axis.
bool IsPerPosition(const OpCall& call, std::string_view parameter) {
  return !call.ShapeOf(parameter).empty();
}

Types InferAffine(const OpCall& call) {
  RequireInts(call, "quantized_data");
  RequireFloats(call, "scale");
  RequireNumbers(call, "zero_point");
  const Shape& shape = call.ShapeOf("quantized_data");
  for (const std::string_view parameter : {"scale", "zero_point"}) {
    if (!IsPerPosition(call, parameter)) continue;
    const std::int64_t axis = call.Axis(call.Int("axis"), shape.size());
    RequireShape(call, parameter, {shape[static_cast<std::size_t>(axis)]});
  }
  return {{call.Type("scale").element, shape}};
}

/// scale * (q - zeroPoint), each scalar or along the axis.
Tensors EvaluateAffine(const OpCall& call) {
  const Tensor& data = call.Value("quantized_data");
  const Tensor& scale = call.Value("scale");
  const Tensor& zeroPoint = call.Value("zero_point");
  std::size_t length = 1;
  std::size_t inner = 1;
  if (IsPerPosition(call, "scale") || IsPerPosition(call, "zero_point")) {
    const auto axis = static_cast<std::size_t>(call.Axis(call.Int("axis"), data.shape().size()));
    length = static_cast<std::size_t>(data.shape()[axis]);
    for (std::size_t i = axis + 1; i < data.shape().size(); ++i) inner *= static_cast<std::size_t>(data.shape()[i]);
  }
  std::vector<float> result;
  result.reserve(data.ints().size());
  for (std::size_t i = 0; i < data.ints().size(); ++i) {
    const std::size_t position = i / inner % length;
    const double factor = NumberAt(scale, IsPerPosition(call, "scale") ? position : 0);
    const double zero = NumberAt(zeroPoint, IsPerPosition(call, "zero_point") ? position : 0);
    result.push_back(static_cast<float>(factor * (data.ints()[i] - zero)));
  }
  return {Tensor::Floats(data.shape(), std::move(result), scale.element())};
}

ElementType CastTarget(const OpCall& call) {
  const std::string dtype = call.Text("output_dtype");
  if (dtype == "fp32") return ElementType::Float32;
  if (dtype == "fp16") return ElementType::Float16;
  call.Fail("output_dtype is '" + dtype + "', expected fp32 or fp16");
}

Types InferCast(const OpCall& call) {
  RequireFloats(call, "source_val");
  return {{CastTarget(call), call.ShapeOf("source_val")}};
}

Tensors EvaluateCast(const OpCall& call) {
  return {Convert(call.Value("source_val"), CastTarget(call))};
}

void CheckScaleAndOffset(const OpCall& call, const Shape& dense) {
  RequireFloats(call, "scale");
  const BlockGrid grid(call, "scale", dense, call.ShapeOf("scale"));
  if (call.Has("offset")) {
    RequireNumbers(call, "offset");
    RequireShape(call, "offset", call.ShapeOf("scale"));
  }
}

float Shifted(const OpCall& call, const Tensor& scale, double value, std::size_t block) {
  const double offset = call.Has("offset") ? NumberAt(call.Value("offset"), block) : 0.0;
  return static_cast<float>(NumberAt(scale, block) * (value - offset));
}

Types InferBlockwise(const OpCall& call) {
  RequireNumbers(call, "data");
  CheckScaleAndOffset(call, call.ShapeOf("data"));
  return {{call.Type("scale").element, call.ShapeOf("data")}};
}

/// scale[b] * (data - offset[b]) with b the block of the element.
Tensors EvaluateBlockwise(const OpCall& call) {
  const Tensor& data = call.Value("data");
  const Tensor& scale = call.Value("scale");
  const BlockGrid grid(call, "scale", data.shape(), scale.shape());
  const auto count = static_cast<std::size_t>(data.count());
  std::vector<float> result;
  result.reserve(count);
  Shape index(data.shape().size(), 0);
  for (std::size_t i = 0; i < count; ++i) {
    result.push_back(Shifted(call, scale, NumberAt(data, i), grid.BlockOf(index)));
    static_cast<void>(NextIndex(index, data.shape()));
  }
  return {Tensor::Floats(data.shape(), std::move(result), scale.element())};
}

Types InferSparseBlockwise(const OpCall& call) {
  RequireInts(call, "data_mask");
  RequireNumbers(call, "nonzero_data");
  RequireRank(call, "nonzero_data", 1, 1);
  CheckScaleAndOffset(call, call.ShapeOf("data_mask"));
  return {call.Type("data_mask"), {call.Type("scale").element, call.ShapeOf("nonzero_data")}};
}

/// As EvaluateBlockwise, for the elements under the mask alone; the blocks are those of the dense tensor.
Tensors EvaluateSparseBlockwise(const OpCall& call) {
  const Tensor& mask = call.Value("data_mask");
  const Tensor& data = call.Value("nonzero_data");
  const Tensor& scale = call.Value("scale");
  RequireSetBits(call, mask, data.count());
  const BlockGrid grid(call, "scale", mask.shape(), scale.shape());
  std::vector<float> result;
  Shape index(mask.shape().size(), 0);
  for (const std::int32_t bit : mask.ints()) {
    if (bit != 0) result.push_back(Shifted(call, scale, NumberAt(data, result.size()), grid.BlockOf(index)));
    static_cast<void>(NextIndex(index, mask.shape()));
  }
  return {mask, Tensor::Floats(data.shape(), std::move(result), scale.element())};
}

}  // namespace

std::vector<OpDefinition> ConstexprOps() {
  return {
      {"constexpr_affine_dequantize",
       {Required("quantized_data"), Required("zero_point"), Required("scale"), RequiredConstant("axis")},
       InferAffine,
       EvaluateAffine},
      {"constexpr_cast", {Required("source_val"), RequiredConstant("output_dtype")}, InferCast, EvaluateCast},
      {"constexpr_blockwise_shift_scale",
       {Required("data"), Required("scale"), Optional("offset")},
       InferBlockwise,
       EvaluateBlockwise},
      {"constexpr_sparse_blockwise_shift_scale",
       {Required("data_mask"), Required("nonzero_data"), Required("scale"), Optional("offset")},
       InferSparseBlockwise,
       EvaluateSparseBlockwise},
  };
}

}  // namespace ulmora::engine::program
