#include "engine/program/ops/Convert.h"

#include "engine/program/ops/IntMath.h"

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace ulmora::engine::program {
namespace {

template <typename Out, typename In, typename Function>
std::vector<Out> Map(std::span<const In> elements, Function function) {
  std::vector<Out> result;
  result.reserve(elements.size());
  for (const In element : elements) result.push_back(function(element));
  return result;
}

Tensor FloatsTo(const Tensor& tensor, ElementType type) {
  if (StorageOf(type) == Storage::Int) {
    const auto convert = [type](float value) { return FloatToInt(value, type); };
    return Tensor::Ints(tensor.shape(), Map<std::int32_t>(tensor.floats(), convert), type);
  }
  const auto convert = [](float value) { return static_cast<std::uint8_t>(value != 0.0F); };
  return Tensor::Bools(tensor.shape(), Map<std::uint8_t>(tensor.floats(), convert));
}

Tensor IntsTo(const Tensor& tensor, ElementType type) {
  switch (StorageOf(type)) {
    case Storage::Float: {
      const auto convert = [](std::int32_t value) { return static_cast<float>(value); };
      return Tensor::Floats(tensor.shape(), Map<float>(tensor.ints(), convert), type);
    }
    case Storage::Int: {
      const auto convert = [type](std::int32_t value) { return WrapInt(value, type); };
      return Tensor::Ints(tensor.shape(), Map<std::int32_t>(tensor.ints(), convert), type);
    }
    default: {
      const auto convert = [](std::int32_t value) { return static_cast<std::uint8_t>(value != 0); };
      return Tensor::Bools(tensor.shape(), Map<std::uint8_t>(tensor.ints(), convert));
    }
  }
}

Tensor BoolsTo(const Tensor& tensor, ElementType type) {
  if (StorageOf(type) == Storage::Float) {
    const auto convert = [](std::uint8_t value) { return value != 0 ? 1.0F : 0.0F; };
    return Tensor::Floats(tensor.shape(), Map<float>(tensor.bools(), convert), type);
  }
  const auto convert = [](std::uint8_t value) { return std::int32_t{value != 0}; };
  return Tensor::Ints(tensor.shape(), Map<std::int32_t>(tensor.bools(), convert), type);
}

}  // namespace

Tensor Convert(const Tensor& tensor, ElementType type) {
  const bool sameKind = tensor.storage() == StorageOf(type);
  if (sameKind && tensor.storage() != Storage::Int) return tensor.Retyped(type);
  switch (tensor.storage()) {
    case Storage::Float:
      return FloatsTo(tensor, type);
    case Storage::Int:
      return IntsTo(tensor, type);
    default:
      return BoolsTo(tensor, type);
  }
}

}  // namespace ulmora::engine::program
