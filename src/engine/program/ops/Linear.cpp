// matmul, linear, einsum, scaled_dot_product_attention. Sums are double inside, or integers modulo 2^32.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/MatmulDims.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <string>

namespace ulmora::engine::program {
namespace {

/// Both hold floats (of whatever types) or both hold integers.
void RequireSameNumbers(const OpCall& call, const TensorType& x, const TensorType& y) {
  const Storage storage = StorageOf(x.element);
  if ((storage != Storage::Float && storage != Storage::Int) || StorageOf(y.element) != storage) {
    call.Fail("operands are of types " + std::string(NameOf(x.element)) + " and " + std::string(NameOf(y.element)) +
              ", expected two of floats or two of integers");
  }
}

/// Sum over k of x[xStart + k * xStep] * y[yStart + k * yStep].
struct Dot {
  std::int64_t xStart = 0;
  std::int64_t yStart = 0;
  std::int64_t xStep = 1;
  std::int64_t yStep = 1;
  std::int64_t count = 0;

  [[nodiscard]] float Of(std::span<const float> x, std::span<const float> y) const {
    double sum = 0.0;
    for (std::int64_t k = 0; k < count; ++k) {
      sum += static_cast<double>(x[static_cast<std::size_t>(xStart + k * xStep)]) *
             static_cast<double>(y[static_cast<std::size_t>(yStart + k * yStep)]);
    }
    return static_cast<float>(sum);
  }

  /// Modulo 2^32, as the processor's own integers behave: overflow must not be undefined.
  [[nodiscard]] std::int32_t Of(std::span<const std::int32_t> x, std::span<const std::int32_t> y) const {
    std::uint32_t sum = 0;
    for (std::int64_t k = 0; k < count; ++k) {
      sum += static_cast<std::uint32_t>(x[static_cast<std::size_t>(xStart + k * xStep)]) *
             static_cast<std::uint32_t>(y[static_cast<std::size_t>(yStart + k * yStep)]);
    }
    return static_cast<std::int32_t>(sum);
  }
};

/// A tensor of shape `type.shape` whose elements are dotAt(index).
template <typename DotAt>
Tensor Dots(const Tensor& x, const Tensor& y, const TensorType& type, const DotAt& dotAt) {
  std::vector<float> floats;
  std::vector<std::int32_t> ints;
  const bool isInt = x.storage() == Storage::Int;
  if (ElementCount(type.shape) > 0) {
    Shape index(type.shape.size(), 0);
    do {
      const Dot dot = dotAt(index);
      if (isInt) {
        ints.push_back(dot.Of(x.ints(), y.ints()));
      } else {
        floats.push_back(dot.Of(x.floats(), y.floats()));
      }
    } while (NextIndex(index, type.shape));
  }
  return isInt ? Tensor::Ints(type.shape, std::move(ints), type.element)
               : Tensor::Floats(type.shape, std::move(floats), type.element);
}

std::vector<TensorType> InferMatmul(const OpCall& call) {
  const TensorType& x = call.Type("x");
  const TensorType& y = call.Type("y");
  RequireSameNumbers(call, x, y);
  // Of two float types, one belongs to a constant; the result has the other one.
  const bool xIsWeight = call.IsKnown("x") && !call.IsKnown("y");
  return {{xIsWeight ? y.element : x.element, DimsOfMatmul(call).result}};
}

std::vector<Tensor> EvaluateMatmul(const OpCall& call) {
  const MatmulDims dims = DimsOfMatmul(call);
  TensorType type = InferMatmul(call).front();
  type.shape = dims.batch;
  type.shape.insert(type.shape.end(), {dims.rows, dims.columns});
  std::vector<std::int64_t> xStrides = BroadcastStrides(dims.xBatch, dims.batch);
  std::vector<std::int64_t> yStrides = BroadcastStrides(dims.yBatch, dims.batch);
  const std::size_t batchRank = dims.batch.size();
  const Tensor result = Dots(call.Value("x"), call.Value("y"), type, [&](const Shape& index) {
    const Shape batch(index.begin(), index.begin() + static_cast<std::ptrdiff_t>(batchRank));
    Dot dot;
    dot.xStart =
        Offset(batch, xStrides) * dims.rows * dims.inner + index[batchRank] * (dims.transposeX ? 1 : dims.inner);
    dot.yStart =
        Offset(batch, yStrides) * dims.inner * dims.columns + index[batchRank + 1] * (dims.transposeY ? dims.inner : 1);
    dot.xStep = dims.transposeX ? dims.rows : 1;
    dot.yStep = dims.transposeY ? 1 : dims.columns;
    dot.count = dims.inner;
    return dot;
  });
  return {result.Reshaped(dims.result)};
}

std::vector<TensorType> InferLinear(const OpCall& call) {
  RequireFloats(call, "x");
  RequireFloats(call, "weight");
  RequireRank(call, "weight", 2, 2);
  TensorType type = call.Type("x");
  const Shape& weight = call.ShapeOf("weight");
  if (type.shape.empty() || type.shape.back() != weight[1]) {
    call.Fail("weight has shape " + ToString(weight) + ", but x has shape " + ToString(type.shape));
  }
  if (call.Has("bias")) RequireFloatVector(call, "bias", weight[0]);
  type.shape.back() = weight[0];
  return {type};
}

std::vector<Tensor> EvaluateLinear(const OpCall& call) {
  const Tensor& weight = call.Value("weight");
  const std::int64_t inner = weight.shape()[1];
  const TensorType type = InferLinear(call).front();
  Shape rows = call.ShapeOf("x");
  rows.back() = 1;
  const std::vector<std::int64_t> rowStrides = BroadcastStrides(rows, type.shape);
  const Tensor product = Dots(call.Value("x"), weight, type, [&](const Shape& index) {
    return Dot{Offset(index, rowStrides) * inner, index.back() * inner, 1, 1, inner};
  });
  if (!call.Has("bias")) return {product};
  const std::span<const float> bias = call.Value("bias").floats();
  std::vector<float> sums(product.floats().begin(), product.floats().end());
  for (std::size_t i = 0; i < sums.size(); ++i) sums[i] += bias[i % bias.size()];
  return {Tensor::Floats(type.shape, std::move(sums), type.element)};
}

/// "nchw,nwhu->nchu" or "chw,whr->chr", whatever the letters: the sizes of both operands and the result, with the
/// contracted letter w.
struct Einsum {
  std::string x;
  std::string y;
  std::string result;
  char contracted = 'w';
};

Einsum ParseEinsum(const OpCall& call) {
  const std::string given = call.Text("equation");
  std::string equation = given;
  std::erase(equation, ' ');
  const bool ranksAreFour = call.ShapeOf("values", 0).size() == 4;
  const std::string pattern = ranksAreFour ? "nchw,nwhu->nchu" : "chw,whr->chr";
  // Every letter must stand for one of the pattern's, and no two for the same: the others are sums of another kind.
  std::map<char, char> canonical;
  std::map<char, char> origin;
  std::string renamed;
  if (equation.size() == pattern.size()) {
    for (std::size_t i = 0; i < equation.size(); ++i) {
      const bool isLetter = pattern[i] >= 'a' && pattern[i] <= 'z';
      const bool isAlone = !isLetter || origin.emplace(pattern[i], equation[i]).first->second == equation[i];
      const char name = isLetter ? canonical.emplace(equation[i], pattern[i]).first->second : equation[i];
      renamed += isAlone ? name : '?';
    }
  }
  if (renamed != pattern) {
    call.Fail("equation is '" + given + "', expected nchw,nwhu->nchu or chw,whr->chr with these or other letters");
  }
  return ranksAreFour ? Einsum{"nchw", "nwhu", "nchu"} : Einsum{"chw", "whr", "chr"};
}

std::map<char, std::int64_t> EinsumSizes(const OpCall& call, const Einsum& einsum) {
  std::map<char, std::int64_t> sizes;
  for (const std::size_t operand : {0U, 1U}) {
    const std::string& letters = operand == 0 ? einsum.x : einsum.y;
    const Shape& shape = call.ShapeOf("values", operand);
    if (shape.size() != letters.size()) {
      call.Fail("values[" + std::to_string(operand) + "] has shape " + ToString(shape) + ", expected rank " +
                std::to_string(letters.size()));
    }
    for (std::size_t i = 0; i < letters.size(); ++i) {
      if (sizes.emplace(letters[i], shape[i]).first->second != shape[i]) {
        call.Fail("values have shapes " + ToString(call.ShapeOf("values", 0)) + " and " +
                  ToString(call.ShapeOf("values", 1)) + ", which do not match equation '" + call.Text("equation") +
                  "'");
      }
    }
  }
  return sizes;
}

std::vector<TensorType> InferEinsum(const OpCall& call) {
  if (call.Count("values") != 2) {
    call.Fail("values has " + std::to_string(call.Count("values")) + " operands, expected 2");
  }
  RequireSameNumbers(call, call.Type("values", 0), call.Type("values", 1));
  const Einsum einsum = ParseEinsum(call);
  const std::map<char, std::int64_t> sizes = EinsumSizes(call, einsum);
  TensorType type = call.Type("values", 0);
  type.shape.clear();
  for (const char letter : einsum.result) type.shape.push_back(sizes.at(letter));
  return {type};
}

/// Step of each letter in an operand of those letters.
std::map<char, std::int64_t> StepsOf(const std::string& letters, const Shape& shape) {
  const std::vector<std::int64_t> strides = RowMajorStrides(shape);
  std::map<char, std::int64_t> steps;
  for (std::size_t i = 0; i < letters.size(); ++i) steps[letters[i]] = strides[i];
  return steps;
}

std::vector<Tensor> EvaluateEinsum(const OpCall& call) {
  const Einsum einsum = ParseEinsum(call);
  std::map<char, std::int64_t> xSteps = StepsOf(einsum.x, call.ShapeOf("values", 0));
  std::map<char, std::int64_t> ySteps = StepsOf(einsum.y, call.ShapeOf("values", 1));
  const std::int64_t count = EinsumSizes(call, einsum).at(einsum.contracted);
  const Tensor& x = call.Value("values", 0);
  return {Dots(x, call.Value("values", 1), InferEinsum(call).front(), [&](const Shape& index) {
    Dot dot{0, 0, xSteps[einsum.contracted], ySteps[einsum.contracted], count};
    for (std::size_t i = 0; i < index.size(); ++i) {
      dot.xStart += index[i] * xSteps[einsum.result[i]];
      dot.yStart += index[i] * ySteps[einsum.result[i]];
    }
    return dot;
  })};
}

OpDefinition Costly(OpDefinition definition) {
  definition.costly = true;
  return definition;
}

}  // namespace

MatmulDims DimsOfMatmul(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  const Shape& y = call.ShapeOf("y");
  const std::string shapes = ToString(x) + " and " + ToString(y);
  if (x.empty() || y.empty()) call.Fail("operands have shapes " + shapes + ", expected rank 1 or more");

  MatmulDims dims;
  dims.transposeX = call.Bool("transpose_x") && x.size() > 1;
  dims.transposeY = call.Bool("transpose_y") && y.size() > 1;
  const auto fromRight = [](const Shape& shape, std::size_t i) { return shape[shape.size() - i]; };
  if (x.size() > 1) dims.rows = fromRight(x, dims.transposeX ? 1 : 2);
  if (y.size() > 1) dims.columns = fromRight(y, dims.transposeY ? 2 : 1);
  dims.inner = fromRight(x, dims.transposeX ? 2 : 1);
  const std::int64_t yInner = y.size() == 1 ? y[0] : fromRight(y, dims.transposeY ? 1 : 2);
  if (dims.inner != yInner) {
    call.Fail("operands have shapes " + shapes + ", but " + std::to_string(dims.inner) + " columns meet " +
              std::to_string(yInner) + " rows");
  }
  dims.xBatch.assign(x.begin(), x.end() - std::min<std::ptrdiff_t>(2, std::ssize(x)));
  dims.yBatch.assign(y.begin(), y.end() - std::min<std::ptrdiff_t>(2, std::ssize(y)));
  const std::optional<Shape> batch = Broadcast(dims.xBatch, dims.yBatch);
  if (!batch) call.Fail("operands have shapes " + shapes + ", whose batch dimensions do not broadcast");
  dims.batch = *batch;
  dims.result = *batch;
  if (x.size() > 1) dims.result.push_back(dims.rows);
  if (y.size() > 1) dims.result.push_back(dims.columns);
  return dims;
}

std::vector<OpDefinition> LinearOps() {
  return {Costly({"matmul",
                  {Required("x"), Required("y"), OptionalConstant("transpose_x", Tensor::Bool(false)),
                   OptionalConstant("transpose_y", Tensor::Bool(false))},
                  InferMatmul,
                  EvaluateMatmul}),
          Costly({"linear",
                  {Required("x"), RequiredConstant("weight"), OptionalConstant("bias")},
                  InferLinear,
                  EvaluateLinear}),
          Costly({"einsum", {Variadic("values"), RequiredConstant("equation")}, InferEinsum, EvaluateEinsum})};
}

}  // namespace ulmora::engine::program
