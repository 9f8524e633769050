// Conversions and the small makers of tensors: cast, identity, shape, select, fill, fill_like, range_1d.

#include "engine/Limits.h"
#include "engine/program/ops/Broadcasting.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Convert.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/IntMath.h"
#include "engine/program/ops/Parameters.h"

#include <cmath>
#include <string>
#include <utility>

namespace ulmora::engine::program {
namespace {

using Types = std::vector<TensorType>;
using Tensors = std::vector<Tensor>;

constexpr std::array<std::string_view, 3> kSelectOperands = {"cond", "a", "b"};

ElementType TargetOf(const OpCall& call) {
  const std::string dtype = call.Text("dtype");
  static constexpr std::pair<std::string_view, ElementType> kTypes[] = {
      {"fp16", ElementType::Float16}, {"fp32", ElementType::Float32}, {"int32", ElementType::Int32},
      {"bool", ElementType::Bool},    {"int8", ElementType::Int8},    {"uint8", ElementType::UInt8},
      {"int16", ElementType::Int16},  {"uint16", ElementType::UInt16}};
  for (const auto& [name, type] : kTypes) {
    if (name == dtype) return type;
  }
  call.Fail("dtype is '" + dtype + "', expected fp16, fp32, int32, bool, int8, uint8, int16 or uint16");
}

Types InferCast(const OpCall& call) {
  RequireData(call, "x");
  return {{TargetOf(call), call.ShapeOf("x")}};
}

Tensors EvaluateCast(const OpCall& call) {
  return {Convert(call.Value("x"), TargetOf(call))};
}

Tensors EvaluateIdentity(const OpCall& call) {
  return {call.Value("x")};
}

Types InferShapeOp(const OpCall& call) {
  return {{ElementType::Int32, {static_cast<std::int64_t>(call.ShapeOf("x").size())}}};
}

Tensors EvaluateShapeOp(const OpCall& call) {
  std::vector<std::int32_t> dims;
  for (const std::int64_t dim : call.ShapeOf("x")) dims.push_back(ClampInt(dim, ElementType::Int32));
  return {Tensor::IntVector(std::move(dims))};
}

Types InferSelect(const OpCall& call) {
  RequireBools(call, "cond");
  RequireData(call, "a");
  RequireData(call, "b");
  return {{CommonElement(call, "a", "b"), BroadcastOf(call, kSelectOperands)}};
}

template <typename T>
std::vector<T> SelectElements(const OpCall& call, const Shape& shape, std::span<const T> a, std::span<const T> b) {
  const std::span<const std::uint8_t> cond = call.Value("cond").bools();
  std::vector<T> result;
  result.reserve(static_cast<std::size_t>(ElementCount(shape)));
  VisitBroadcast<3>(
      shape, {call.ShapeOf("cond"), call.ShapeOf("a"), call.ShapeOf("b")},
      [&](const std::array<std::size_t, 3>& at) { result.push_back(cond[at[0]] != 0 ? a[at[1]] : b[at[2]]); });
  return result;
}

Tensors EvaluateSelect(const OpCall& call) {
  const Tensor& a = call.Value("a");
  const Tensor& b = call.Value("b");
  const Shape shape = BroadcastOf(call, kSelectOperands);
  const ElementType type = CommonElement(call, "a", "b");
  switch (a.storage()) {
    case Storage::Float:
      return {Tensor::Floats(shape, SelectElements(call, shape, a.floats(), b.floats()), type)};
    case Storage::Int:
      return {Tensor::Ints(shape, SelectElements(call, shape, a.ints(), b.ints()), type)};
    default:
      return {Tensor::Bools(shape, SelectElements(call, shape, a.bools(), b.bools()))};
  }
}

/// The scalar `value` of fill and fill_like.
const Tensor& FillValue(const OpCall& call) {
  const Tensor& value = call.Value("value");
  if (value.count() != 1 || value.storage() == Storage::String) {
    call.Fail("value is " + std::string(NameOf(value.element())) + " " + ToString(value.shape()) +
              ", expected a single number or bool");
  }
  return value;
}

Tensor Filled(const Tensor& value, Shape shape) {
  const auto count = static_cast<std::size_t>(ElementCount(shape));
  switch (value.storage()) {
    case Storage::Float:
      return Tensor::Floats(std::move(shape), std::vector<float>(count, value.floats().front()), value.element());
    case Storage::Int:
      return Tensor::Ints(std::move(shape), std::vector<std::int32_t>(count, value.ints().front()), value.element());
    default:
      return Tensor::Bools(std::move(shape), std::vector<std::uint8_t>(count, value.bools().front()));
  }
}

Types InferFill(const OpCall& call) {
  Shape shape = call.Ints("shape");
  if (!IsStatic(shape)) call.Fail("shape is " + ToString(shape) + ", expected no negative entries");
  return {{FillValue(call).element(), std::move(shape)}};
}

Tensors EvaluateFill(const OpCall& call) {
  return {Filled(FillValue(call), call.Ints("shape"))};
}

Types InferFillLike(const OpCall& call) {
  return {{FillValue(call).element(), call.ShapeOf("ref_tensor")}};
}

Tensors EvaluateFillLike(const OpCall& call) {
  return {Filled(FillValue(call), call.ShapeOf("ref_tensor"))};
}

struct Range {
  double start;
  double step;
  std::int64_t count;
};

/// Integers are exact in double, so that one rule serves both kinds: ceil((end - start) / step) elements.
Range RangeOf(const OpCall& call) {
  const auto number = [&call](std::string_view parameter) {
    RequireNumbers(call, parameter);
    const bool isFloat = StorageOf(call.Type(parameter).element) == Storage::Float;
    return isFloat ? static_cast<double>(call.Float(parameter)) : static_cast<double>(call.Int(parameter));
  };
  Range range = {number("start"), number("step"), 0};
  const double end = number("end");
  if (!std::isfinite(range.start) || !std::isfinite(end) || !std::isfinite(range.step) || range.step == 0) {
    call.Fail("no range from " + std::to_string(range.start) + " to " + std::to_string(end) + " by " +
              std::to_string(range.step));
  }
  const double count = std::ceil((end - range.start) / range.step);
  if (count > static_cast<double>(limits::kMaxTensorElements)) call.Fail("the range has too many elements");
  range.count = count > 0 ? static_cast<std::int64_t>(count) : 0;
  return range;
}

Types InferRange(const OpCall& call) {
  static_cast<void>(CommonElement(call, "start", "end"));
  static_cast<void>(CommonElement(call, "start", "step"));
  return {{call.Type("start").element, {RangeOf(call).count}}};
}

Tensors EvaluateRange(const OpCall& call) {
  const Range range = RangeOf(call);
  const ElementType type = call.Type("start").element;
  const bool isFloat = StorageOf(type) == Storage::Float;
  std::vector<float> floats;
  std::vector<std::int32_t> ints;
  for (std::int64_t i = 0; i < range.count; ++i) {
    const double value = range.start + range.step * static_cast<double>(i);
    if (isFloat) {
      floats.push_back(static_cast<float>(value));
    } else {
      ints.push_back(ClampInt(static_cast<std::int64_t>(value), type));
    }
  }
  if (isFloat) return {Tensor::Floats({range.count}, std::move(floats), type)};
  return {Tensor::Ints({range.count}, std::move(ints), type)};
}

}  // namespace

std::vector<OpDefinition> CastOps() {
  const Parameter value = OptionalConstant("value", Tensor::Float(0.0F));
  return {
      {"cast", {Required("x"), RequiredConstant("dtype")}, InferCast, EvaluateCast},
      {"identity", {Required("x")}, LikeX, EvaluateIdentity},
      {"shape", {TypeOnly("x")}, InferShapeOp, EvaluateShapeOp},
      {"select", {Required("cond"), Required("a"), Required("b")}, InferSelect, EvaluateSelect},
      {"fill", {RequiredConstant("shape"), value}, InferFill, EvaluateFill},
      {"fill_like", {TypeOnly("ref_tensor"), value}, InferFillLike, EvaluateFillLike},
      {"range_1d",
       {RequiredConstant("start"), RequiredConstant("end"), RequiredConstant("step")},
       InferRange,
       EvaluateRange},
  };
}

}  // namespace ulmora::engine::program
