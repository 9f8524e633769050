#pragma once
// Chains of operations that treat every pixel by itself, over all its channels: 1x1 convolutions, normalisation over
// the channels, gates, sums. One after another, each would read and write whole tensors, which takes longer than its
// arithmetic. Here a thread takes a run of pixels through the whole chain while they lie in its cache, and only what
// enters and leaves the chain reaches memory.

#include <cstddef>
#include <cstdint>

namespace ulmora::engine::cpu {

/// Where the pixels of a tensor lie, in elements: the channels of a block are consecutive.
struct RunStrides {
  std::int64_t image = 0;
  std::int64_t block = 0;
  std::int64_t pixel = 0;
};

/// One operation on the channels of a run. Channels in the scratch memory are numbered; `from`, `other` and `to` are
/// the first ones of operands and result. All channel counts are multiples of the lanes of the kernels. Elementwise
/// operations and norms may write over what they read, a matrix may not.
struct PixelStep {
  enum class Kind : std::uint8_t {
    Load,      ///< to = tensor
    Store,     ///< tensor = from
    Matrix,    ///< to = weights from + bias: `inputs` channels to `channels`
    Norm,      ///< to = (from - mean) / sqrt(variance + alpha) * weights + bias, over the channels
    Scale,     ///< to = from * tensor, a factor for each channel; strides.image apart for each image, or 0
    Add,       ///< to = from + alpha other
    Multiply,  ///< to = from * other
    Relu,      ///< to = from > 0 ? from : alpha from
    Linear,    ///< to = alpha from + beta
    Clip,      ///< to = min(max(from, alpha), beta)
  };
  Kind kind = Kind::Load;
  std::int64_t from = 0;
  std::int64_t other = 0;
  std::int64_t to = 0;
  std::int64_t inputs = 0;
  std::int64_t channels = 0;  ///< of the result
  float alpha = 0.0F;
  float beta = 0.0F;
  float* tensor = nullptr;
  RunStrides strides;              ///< of the tensor
  const float* weights = nullptr;  ///< of a matrix as PixelKernels::pack leaves them
  const float* bias = nullptr;     ///< [channels], null for none
};

/// A run: `count` pixels of an image from the pixel `first` on. The scratch has room for `capacity` pixels, a multiple
/// of PixelKernels::rows, of each numbered channel.
struct PixelRun {
  std::int64_t image = 0;
  std::int64_t first = 0;
  std::int64_t count = 0;
  std::int64_t capacity = 0;
  float* scratch = nullptr;
};

/// The kernels for one instruction set.
struct PixelKernels {
  int lanes;  ///< channels that a vector holds
  int rows;   ///< pixels that a matrix kernel takes at a time
  /// Orders weights [outputs, inputs], both multiples of lanes, for the matrix kernel.
  void (*pack)(const float* weights, std::int64_t outputs, std::int64_t inputs, float* packed);
  void (*run)(const PixelRun& run, const PixelStep* steps, std::size_t count);
};

/// The fastest kernels that this processor runs for channel blocks of that many lanes; null if there are none.
[[nodiscard]] const PixelKernels* FindPixelKernels(int lanes);

/// How the pixels of `images` images are cut into runs, for at most that many threads.
class PixelPlan {
 public:
  /// `channels` is how many the steps number.
  PixelPlan(const PixelKernels& kernels, std::int64_t images, std::int64_t pixels, std::int64_t channels, int threads);

  /// Bytes of scratch memory of all threads together; they do not grow with the image.
  [[nodiscard]] std::int64_t scratchBytes() const noexcept;

  /// Takes every pixel through the steps, on the OpenMP pool. The scratch is aligned to 64 bytes; its contents do not
  /// matter.
  void Run(const PixelStep* steps, std::size_t count, float* scratch) const;

 private:
  const PixelKernels& kernels_;
  std::int64_t images_;
  std::int64_t pixels_;
  std::int64_t channels_;
  int threads_;
  std::int64_t capacity_ = 0;  ///< pixels of a run
};

}  // namespace ulmora::engine::cpu
