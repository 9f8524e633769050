#include "tools/InputShape.h"

#include <cmath>
#include <string>

namespace ulmora::tools {
namespace {

using engine::Error;
using engine::Shape;

constexpr std::int64_t kTile = 512;
constexpr std::size_t kImageRank = 4;

bool Takes(const engine::Model& model, const Shape& shape) {
  try {
    static_cast<void>(model.MultiplyAdds(shape));
    return true;
  } catch (const Error&) {
    return false;
  }
}

[[noreturn]] void Fail(const std::string& message) {
  throw Error(engine::Stage::Run, message);
}

}  // namespace

std::optional<Shape> ShapeForTile(const engine::Model& model, const std::optional<Shape>& asked) {
  if (asked) return asked;
  const Shape& declared = model.inputs().front().shape;
  Shape tile = declared.empty() ? Shape{1, 3, kTile, kTile} : declared;
  if (tile.size() == kImageRank) {
    tile[2] = tile[3] = kTile;
    if (Takes(model, tile)) return tile;
  }
  if (declared.empty()) return std::nullopt;
  return declared;
}

Shape ShapeForCount(const engine::Model& model, const std::optional<Shape>& asked, std::int64_t count) {
  const std::string values = std::to_string(count) + " values";
  if (asked) {
    if (engine::ElementCount(*asked) != count) {
      Fail("the input has " + values + ", expected " + std::to_string(engine::ElementCount(*asked)) + " for " +
           engine::ToString(*asked));
    }
    return *asked;
  }
  const Shape& declared = model.inputs().front().shape;
  if (!declared.empty() && engine::ElementCount(declared) == count) return declared;
  const std::int64_t channels = declared.size() == kImageRank ? declared[1] : 3;
  const auto side = static_cast<std::int64_t>(std::llround(std::sqrt(static_cast<double>(count / channels))));
  if (side < 1 || channels * side * side != count) {
    Fail("the input has " + values + ", which are neither " +
         (declared.empty() ? std::string("an image") : engine::ToString(declared)) +
         " nor a square; give its shape with --shape");
  }
  return {1, channels, side, side};
}

}  // namespace ulmora::tools
