#pragma once
// Operations that treat every pixel by itself, in terms of the steps of kernels/pixels.

#include "engine/cpu/Lowering.h"
#include "engine/cpu/kernels/pixels/Pixels.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace ulmora::engine::cpu {

/// A step on values of the program. Images are float values [N, C, H, W] whose channels fill blocks.
struct ValueStep {
  PixelStep step;                             ///< but the places of its operands
  program::ValueId from = 0;                  ///< an image
  std::optional<program::ValueId> other{};    ///< an image
  program::ValueId to = 0;                    ///< an image; it may be `from`
  std::optional<program::ValueId> factors{};  ///< of Scale: [N or 1, C, 1, 1]
  std::optional<program::ValueId> weights{};  ///< constants, as the operation has them
  std::optional<program::ValueId> bias{};
  std::optional<std::int64_t> firstChannel{};  ///< no step at all: `to` is these channels of `from`
};

/// True for a value that is an image, and none of so few pixels that it is not worth a run.
[[nodiscard]] bool IsImage(const program::Program& program, program::ValueId id);

/// The steps of an operation from images to images of the same pixels: 1x1 convolutions with those fused steps that the
/// kernels know, layer_norm over the channels, split along them, sums and products of images, products with a factor
/// for each channel, and activations that the kernels know. None for other operations.
[[nodiscard]] std::optional<std::vector<ValueStep>> PixelStepsOf(const LowerCall& call);

}  // namespace ulmora::engine::cpu
