#include "engine/program/MultiplyAdds.h"

#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

namespace ulmora::engine::program {
namespace {

/// Counts reach 2^31 elements each, so that products are taken with care.
std::int64_t Times(std::int64_t a, std::int64_t b) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  return b != 0 && a > kMost / b ? kMost : a * b;
}

/// Each element of `result` sums this many products: the elements of a weight for one of its first dimension.
std::int64_t PerFirst(const Shape& weight) {
  return weight.at(0) == 0 ? 0 : ElementCount(weight) / weight.at(0);
}

std::int64_t AttentionCost(const OpCall& call) {
  const Shape& query = call.ShapeOf("query");
  const Shape& key = call.ShapeOf("key");
  const Shape& value = call.ShapeOf("value");
  const std::int64_t keys = key.at(key.size() - 2);
  // Each row of the query meets every key, and the weights that come of it every value.
  const std::int64_t rows = query.back() == 0 ? 0 : ElementCount(query) / query.back();
  return Times(Times(rows, keys), query.back() + value.back());
}

std::int64_t CostOf(const OpCall& call, const Shape& result) {
  const std::string_view key = call.definition().key;
  if (key == "conv") return Times(ElementCount(result), PerFirst(call.ShapeOf("weight")));
  // The weight's first dimension is that of the input, every element of which is spread over all the others.
  if (key == "conv_transpose") return Times(ElementCount(call.ShapeOf("x")), PerFirst(call.ShapeOf("weight")));
  if (key == "linear") return Times(ElementCount(result), call.ShapeOf("weight").at(1));
  if (key == "einsum") return Times(ElementCount(result), call.ShapeOf("values", 0).back());
  if (key == "matmul") {
    const Shape& x = call.ShapeOf("x");
    const bool transposed = call.Bool("transpose_x") && x.size() > 1;
    return Times(ElementCount(result), transposed ? x.at(x.size() - 2) : x.back());
  }
  if (key == "scaled_dot_product_attention") return AttentionCost(call);
  return 0;
}

}  // namespace

std::int64_t MultiplyAdds(const Program& program) {
  std::int64_t sum = 0;
  for (const Operation& operation : program.operations) {
    const std::int64_t cost = CostOf(OpCall(program, operation), program.at(operation.results.front()).type.shape);
    sum = cost > std::numeric_limits<std::int64_t>::max() - sum ? std::numeric_limits<std::int64_t>::max() : sum + cost;
  }
  return sum;
}

}  // namespace ulmora::engine::program
