#include "engine/Tensor.h"

#include "engine/Error.h"
#include "engine/Limits.h"

#include <array>
#include <utility>

namespace ulmora::engine {
namespace {

void RequireElements(const Shape& shape, std::size_t count, ElementType type, Storage storage) {
  if (StorageOf(type) != storage) {
    throw Error(Stage::Translate, "tensor of type " + std::string(NameOf(type)) + " given elements of another kind");
  }
  if (std::cmp_not_equal(ElementCount(shape), count)) {
    throw Error(Stage::Translate,
                "tensor of shape " + ToString(shape) + " given " + std::to_string(count) + " elements");
  }
}

}  // namespace

Storage StorageOf(ElementType type) noexcept {
  switch (type) {
    case ElementType::Bool:
      return Storage::Bool;
    case ElementType::String:
      return Storage::String;
    case ElementType::Float16:
    case ElementType::Float32:
    case ElementType::Float64:
    case ElementType::BFloat16:
    case ElementType::Float8E4M3FN:
    case ElementType::Float8E5M2:
      return Storage::Float;
    default:
      return Storage::Int;
  }
}

std::string_view NameOf(ElementType type) noexcept {
  static constexpr std::array<std::string_view, 22> kNames = {
      "bool",  "string", "float16", "float32", "float64", "bfloat16", "float8e4m3fn", "float8e5m2",
      "int4",  "int8",   "int16",   "int32",   "int64",   "uint1",    "uint2",        "uint3",
      "uint4", "uint6",  "uint8",   "uint16",  "uint32",  "uint64"};
  return kNames[static_cast<std::size_t>(type)];
}

std::string ToString(const Shape& shape) {
  std::string text = "[";
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (i > 0) text += ", ";
    text += shape[i] == kUnknownDim ? "?" : std::to_string(shape[i]);
  }
  return text + "]";
}

bool IsStatic(const Shape& shape) noexcept {
  for (const std::int64_t dim : shape) {
    if (dim < 0) return false;
  }
  return true;
}

std::int64_t ElementCount(const Shape& shape) {
  if (shape.size() > static_cast<std::size_t>(limits::kMaxRank)) {
    throw Error(Stage::Translate, "tensor of rank " + std::to_string(shape.size()) + " is above the limit of " +
                                      std::to_string(limits::kMaxRank));
  }
  std::int64_t count = 1;
  bool empty = false;
  for (const std::int64_t dim : shape) {
    if (dim < 0) throw Error(Stage::Translate, "tensor shape " + ToString(shape) + " is not fully known");
    if (dim == 0) {
      empty = true;
      continue;
    }
    // Zero dimensions are left out of the product so that the bound holds for the others, too.
    if (dim > limits::kMaxTensorElements / count) {
      throw Error(Stage::Translate, "tensor shape " + ToString(shape) + " has more than " +
                                        std::to_string(limits::kMaxTensorElements) + " elements");
    }
    count *= dim;
  }
  return empty ? 0 : count;
}

Tensor::Tensor(ElementType element, Shape shape, Elements elements)
    : element_(element), shape_(std::move(shape)), elements_(std::move(elements)) {}

Tensor Tensor::Floats(Shape shape, std::vector<float> data, ElementType type) {
  RequireElements(shape, data.size(), type, Storage::Float);
  return {type, std::move(shape), std::make_shared<const std::vector<float>>(std::move(data))};
}

Tensor Tensor::Ints(Shape shape, std::vector<std::int32_t> data, ElementType type) {
  RequireElements(shape, data.size(), type, Storage::Int);
  return {type, std::move(shape), std::make_shared<const std::vector<std::int32_t>>(std::move(data))};
}

Tensor Tensor::Bools(Shape shape, std::vector<std::uint8_t> data) {
  RequireElements(shape, data.size(), ElementType::Bool, Storage::Bool);
  return {ElementType::Bool, std::move(shape), std::make_shared<const std::vector<std::uint8_t>>(std::move(data))};
}

Tensor Tensor::Strings(Shape shape, std::vector<std::string> data) {
  RequireElements(shape, data.size(), ElementType::String, Storage::String);
  return {ElementType::String, std::move(shape), std::make_shared<const std::vector<std::string>>(std::move(data))};
}

Tensor Tensor::IntVector(std::vector<std::int32_t> values) {
  Shape shape = {static_cast<std::int64_t>(values.size())};
  return Ints(std::move(shape), std::move(values));
}

std::int64_t Tensor::count() const noexcept {
  return std::visit([](const auto& elements) { return static_cast<std::int64_t>(elements->size()); }, elements_);
}

std::span<const float> Tensor::floats() const {
  return *std::get<Shared<float>>(elements_);
}
std::span<const std::int32_t> Tensor::ints() const {
  return *std::get<Shared<std::int32_t>>(elements_);
}
std::span<const std::uint8_t> Tensor::bools() const {
  return *std::get<Shared<std::uint8_t>>(elements_);
}
std::span<const std::string> Tensor::strings() const {
  return *std::get<Shared<std::string>>(elements_);
}

Tensor Tensor::Reshaped(Shape shape) const {
  RequireElements(shape, static_cast<std::size_t>(count()), element_, storage());
  return {element_, std::move(shape), elements_};
}

Tensor Tensor::Retyped(ElementType type) const {
  RequireElements(shape_, static_cast<std::size_t>(count()), type, storage());
  return {type, shape_, elements_};
}

const void* Tensor::identity() const noexcept {
  return std::visit([](const auto& elements) { return static_cast<const void*>(elements.get()); }, elements_);
}

}  // namespace ulmora::engine
