#include "engine/program/ops/Take.h"

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/IntMath.h"

#include <span>
#include <utility>
#include <vector>

namespace ulmora::engine::program {
namespace {

template <typename T>
std::vector<T> TakeFrom(std::span<const T> x, const Shape& shape, const Source& source, T fill) {
  std::vector<T> result;
  const std::int64_t count = ElementCount(shape);
  if (count == 0) return result;
  result.reserve(static_cast<std::size_t>(count));
  Shape index(shape.size(), 0);
  do {
    const std::int64_t offset = source(index);
    result.push_back(offset == kFill ? fill : x[static_cast<std::size_t>(offset)]);
  } while (NextIndex(index, shape));
  return result;
}

}  // namespace

Tensor Take(const Tensor& x, const Shape& shape, const Source& source, float fill) {
  switch (x.storage()) {
    case Storage::Int:
      return Tensor::Ints(shape, TakeFrom(x.ints(), shape, source, FloatToInt(fill, x.element())), x.element());
    case Storage::Bool:
      return Tensor::Bools(shape, TakeFrom(x.bools(), shape, source, static_cast<std::uint8_t>(fill != 0.0F)));
    default:
      return Tensor::Floats(shape, TakeFrom(x.floats(), shape, source, fill), x.element());
  }
}

}  // namespace ulmora::engine::program
