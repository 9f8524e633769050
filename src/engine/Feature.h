#pragma once
// One input or output of a model, as its description declares it.

#include "engine/Tensor.h"

#include <cstdint>
#include <string>

namespace ulmora::engine {

/// What a feature of the model's interface is. Only tensors can be run.
enum class FeatureKind : std::uint8_t { Tensor, Image, Other };

struct Feature {
  std::string name;
  FeatureKind kind = FeatureKind::Other;
  ElementType element = ElementType::Float32;
  Shape shape;  ///< default shape; empty if the description leaves it open
};

}  // namespace ulmora::engine
