// scaled_dot_product_attention. Sums are double inside.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

namespace ulmora::engine::program {
namespace {

/// query [batch, rows, inner], key [batch, columns, inner], value [batch, columns, depth]; batches broadcast.
struct AttentionDims {
  Shape batch;
  std::int64_t rows = 0;
  std::int64_t columns = 0;
  std::int64_t inner = 0;
  std::int64_t depth = 0;
};

Shape BatchOf(const Shape& shape) {
  return {shape.begin(), shape.end() - 2};
}

AttentionDims DimsOf(const OpCall& call) {
  for (const std::string_view parameter : {"query", "key", "value"}) {
    RequireFloats(call, parameter);
    RequireRank(call, parameter, 3, 5);
  }
  const Shape& query = call.ShapeOf("query");
  const Shape& key = call.ShapeOf("key");
  const Shape& value = call.ShapeOf("value");
  AttentionDims dims{{}, query.end()[-2], key.end()[-2], query.back(), value.back()};
  const std::optional<Shape> scores = Broadcast(BatchOf(query), BatchOf(key));
  const std::optional<Shape> batch = scores ? Broadcast(*scores, BatchOf(value)) : std::nullopt;
  if (!batch || key.back() != dims.inner || value.end()[-2] != dims.columns) {
    call.Fail("query " + ToString(query) + ", key " + ToString(key) + " and value " + ToString(value) +
              " do not match");
  }
  dims.batch = *batch;
  return dims;
}

Shape ScoresShape(const AttentionDims& dims) {
  Shape shape = dims.batch;
  shape.insert(shape.end(), {dims.rows, dims.columns});
  return shape;
}

std::vector<TensorType> InferAttention(const OpCall& call) {
  const AttentionDims dims = DimsOf(call);
  if (call.Has("attn_mask")) {
    const TensorType& mask = call.Type("attn_mask");
    const Storage storage = StorageOf(mask.element);
    if (storage != Storage::Bool && storage != Storage::Float) {
      call.Fail("attn_mask is of type " + std::string(NameOf(mask.element)) + ", expected bool or floats");
    }
    if (Broadcast(mask.shape, ScoresShape(dims)) != ScoresShape(dims)) {
      call.Fail("attn_mask has shape " + ToString(mask.shape) + ", expected one that broadcasts to " +
                ToString(ScoresShape(dims)));
    }
  }
  Shape shape = dims.batch;
  shape.insert(shape.end(), {dims.rows, dims.depth});
  return {{call.Type("query").element, shape}};
}

/// What is added to each score; minus infinity where a bool mask is false. Empty without a mask.
std::vector<double> MaskOf(const OpCall& call) {
  std::vector<double> mask;
  if (!call.Has("attn_mask")) return mask;
  const Tensor& given = call.Value("attn_mask");
  if (given.storage() == Storage::Bool) {
    for (const std::uint8_t attend : given.bools()) {
      mask.push_back(attend != 0 ? 0.0 : -std::numeric_limits<double>::infinity());
    }
    return mask;
  }
  return {given.floats().begin(), given.floats().end()};
}

/// In place. A row that is masked altogether attends to nothing and becomes zero, as in PyTorch since 2.5.
void Softmax(std::vector<double>& scores) {
  const double largest = scores.empty() ? 0.0 : *std::ranges::max_element(scores);
  double sum = 0.0;
  for (double& score : scores) {
    score = std::isinf(largest) && largest < 0.0 ? 0.0 : std::exp(score - largest);
    sum += score;
  }
  for (double& score : scores) score = sum > 0.0 ? score / sum : score;
}

class Attention {
 public:
  explicit Attention(const OpCall& call)
      : dims_(DimsOf(call)),
        query_(call.Value("query").floats()),
        key_(call.Value("key").floats()),
        value_(call.Value("value").floats()),
        mask_(MaskOf(call)),
        queryStrides_(BroadcastStrides(BatchOf(call.ShapeOf("query")), dims_.batch)),
        keyStrides_(BroadcastStrides(BatchOf(call.ShapeOf("key")), dims_.batch)),
        valueStrides_(BroadcastStrides(BatchOf(call.ShapeOf("value")), dims_.batch)) {
    if (!mask_.empty()) maskStrides_ = BroadcastStrides(call.ShapeOf("attn_mask"), ScoresShape(dims_));
  }

  /// Appends one row of the result.
  void AppendRow(const Shape& batch, std::int64_t row, std::vector<float>& result) const {
    std::vector<double> weights = Scores(batch, row);
    Softmax(weights);
    const std::int64_t values = Offset(batch, valueStrides_) * dims_.columns * dims_.depth;
    for (std::int64_t d = 0; d < dims_.depth; ++d) {
      double sum = 0.0;
      for (std::int64_t c = 0; c < dims_.columns; ++c) {
        sum += weights[static_cast<std::size_t>(c)] *
               static_cast<double>(value_[static_cast<std::size_t>(values + c * dims_.depth + d)]);
      }
      result.push_back(static_cast<float>(sum));
    }
  }

  [[nodiscard]] const AttentionDims& dims() const noexcept { return dims_; }

 private:
  [[nodiscard]] std::vector<double> Scores(const Shape& batch, std::int64_t row) const {
    const std::int64_t q = (Offset(batch, queryStrides_) * dims_.rows + row) * dims_.inner;
    std::vector<double> scores;
    for (std::int64_t c = 0; c < dims_.columns; ++c) {
      const std::int64_t k = (Offset(batch, keyStrides_) * dims_.columns + c) * dims_.inner;
      double sum = 0.0;
      for (std::int64_t e = 0; e < dims_.inner; ++e) {
        sum += static_cast<double>(query_[static_cast<std::size_t>(q + e)]) *
               static_cast<double>(key_[static_cast<std::size_t>(k + e)]);
      }
      scores.push_back(sum / std::sqrt(static_cast<double>(dims_.inner)) + MaskAt(batch, row, c));
    }
    return scores;
  }

  [[nodiscard]] double MaskAt(Shape index, std::int64_t row, std::int64_t column) const {
    if (mask_.empty()) return 0.0;
    index.insert(index.end(), {row, column});
    return mask_[static_cast<std::size_t>(Offset(index, maskStrides_))];
  }

  AttentionDims dims_;
  std::span<const float> query_;
  std::span<const float> key_;
  std::span<const float> value_;
  std::vector<double> mask_;
  std::vector<std::int64_t> queryStrides_;
  std::vector<std::int64_t> keyStrides_;
  std::vector<std::int64_t> valueStrides_;
  std::vector<std::int64_t> maskStrides_;
};

std::vector<Tensor> EvaluateAttention(const OpCall& call) {
  const Attention attention(call);
  const TensorType type = InferAttention(call).front();
  std::vector<float> result;
  if (ElementCount(type.shape) > 0) {
    Shape batch(attention.dims().batch.size(), 0);
    do {
      for (std::int64_t row = 0; row < attention.dims().rows; ++row) attention.AppendRow(batch, row, result);
    } while (NextIndex(batch, attention.dims().batch));
  }
  return {Tensor::Floats(type.shape, std::move(result), type.element)};
}

}  // namespace

std::vector<OpDefinition> AttentionOps() {
  OpDefinition attention{"scaled_dot_product_attention",
                         {Required("query"), Required("key"), Required("value"), Optional("attn_mask")},
                         InferAttention,
                         EvaluateAttention};
  attention.costly = true;
  return {attention};
}

}  // namespace ulmora::engine::program
