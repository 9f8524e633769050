#include "engine/program/ops/Broadcasting.h"

#include <optional>

namespace ulmora::engine::program {

Shape BroadcastOf(const OpCall& call, std::span<const std::string_view> parameters) {
  std::optional<Shape> common = Shape{};
  std::string all;
  for (const std::string_view parameter : parameters) {
    const Shape& shape = call.ShapeOf(parameter);
    if (common) common = Broadcast(*common, shape);
    all += (all.empty() ? "" : " and ") + ToString(shape);
  }
  if (!common) call.Fail("shapes " + all + " do not broadcast");
  return *common;
}

ElementType CommonElement(const OpCall& call, std::string_view x, std::string_view y) {
  const ElementType a = call.Type(x).element;
  const ElementType b = call.Type(y).element;
  if (StorageOf(a) != StorageOf(b)) {
    call.Fail(std::string(x) + " is of type " + std::string(NameOf(a)) + ", but " + std::string(y) + " of type " +
              std::string(NameOf(b)));
  }
  if (a == b) return a;
  return StorageOf(a) == Storage::Float ? ElementType::Float32 : ElementType::Int32;
}

}  // namespace ulmora::engine::program
