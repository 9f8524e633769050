#pragma once
// One input or output of a model, as its description declares it.

#include "engine/Tensor.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace ulmora::engine {

/// What a feature of the model's interface is. Only tensors can be run.
enum class FeatureKind : std::uint8_t { Tensor, Image, Other };

/// The sizes that a flexible dimension may have, both ends included.
struct SizeRange {
  static constexpr std::int64_t kUnbounded = std::numeric_limits<std::int64_t>::max();

  std::int64_t least = 1;
  std::int64_t most = kUnbounded;

  friend bool operator==(const SizeRange&, const SizeRange&) = default;
};

struct Feature {
  std::string name;
  FeatureKind kind = FeatureKind::Other;
  ElementType element = ElementType::Float32;
  Shape shape;                      ///< default shape; empty if the description leaves it open
  std::vector<Shape> enumerated{};  ///< all shapes, where the description lists them
  std::vector<SizeRange> ranges{};  ///< of each dimension, where the description gives ranges or a fixed shape
};

/// True if the description allows a tensor of this shape: one of the list, or one within the ranges, or any where it
/// has neither.
[[nodiscard]] bool Accepts(const Feature& feature, const Shape& shape);

/// What Accepts asks for: "[1, 3, 8 to 512, 64 or more]", or "[1, 3, 64, 64] or [1, 3, 96, 96]".
[[nodiscard]] std::string DescribeAccepted(const Feature& feature);

}  // namespace ulmora::engine
