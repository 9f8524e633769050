#pragma once
// 3x3 convolutions of stride 1 by Winograd's minimal filtering F(4x4, 3x3): each tile of 4 x 4 results costs 36
// products per pair of channels instead of 144 (Lavin & Gray, "Fast Algorithms for Convolutional Neural Networks",
// 2016).
//
// A thread takes a run of tiles through all three stages while they lie in its cache: source tiles are transformed, 36
// small matrix products mix the channels, and the products are transformed back, finished and written. Nothing but the
// result reaches memory, so that the scratch does not grow with the image.

#include <cstddef>
#include <cstdint>

namespace ulmora::engine::cpu {

/// Where the pixels of a tensor lie, in elements: the channels of a block are consecutive.
struct PixelStrides {
  std::int64_t image = 0;
  std::int64_t block = 0;
  std::int64_t row = 0;
  std::int64_t pixel = 0;
};

/// What happens to a result before it is written.
struct WinogradStage {
  enum class Kind : std::uint8_t {
    Relu,      ///< x > 0 ? x : alpha x
    Linear,    ///< alpha x + beta
    Clip,      ///< min(max(x, alpha), beta)
    Add,       ///< x + alpha tensor
    Multiply,  ///< x tensor
  };
  Kind kind = Kind::Relu;
  float alpha = 0.0F;
  float beta = 0.0F;
  const float* tensor = nullptr;  ///< with the strides of the result, which it may be itself
};

/// A convolution of [images, inputs, height, width] to [images, outputs, resultHeight, resultWidth]. Both channel
/// counts are multiples of the lanes of the kernels.
struct WinogradTask {
  std::int64_t images = 1;
  std::int64_t inputs = 0;
  std::int64_t outputs = 0;
  std::int64_t height = 0;
  std::int64_t width = 0;
  std::int64_t resultHeight = 0;
  std::int64_t resultWidth = 0;
  std::int64_t padTop = 0;
  std::int64_t padLeft = 0;
  PixelStrides from;
  PixelStrides to;

  const float* source = nullptr;
  const float* weights = nullptr;  ///< as WinogradPlan::Pack leaves them
  const float* bias = nullptr;     ///< [outputs], or null
  float* result = nullptr;
  const WinogradStage* stages = nullptr;
  int stageCount = 0;
};

/// The kernels for one instruction set.
struct WinogradKernels {
  int lanes;  ///< channels that a vector holds
  int rows;   ///< tiles that a matrix kernel takes at a time
  /// Transforms the kernels of one block of outputs from the inputs [begin, end).
  void (*packBlock)(const float* weights, std::int64_t outputs, std::int64_t inputs, std::int64_t block,
                    std::int64_t begin, std::int64_t end, float* packed);
  /// Computes `count` tiles from the one of index `first` on, at most `capacity`, a multiple of rows.
  void (*runTiles)(const WinogradTask& task, std::int64_t first, std::int64_t count, std::int64_t capacity,
                   float* scratch);
};

inline constexpr std::int64_t kWinogradTile = 4;       ///< results of a tile, along each axis
inline constexpr std::int64_t kWinogradPatch = 6;      ///< source pixels of a tile, along each axis
inline constexpr std::int64_t kWinogradProducts = 36;  ///< products of a tile per pair of channels

/// Floats between the planes of the 36 products. Planes of a power of two would compete for the same lines of a cache.
inline constexpr std::int64_t kPlaneGap = 16;

/// The fastest kernels that this processor runs for channel blocks of that many lanes; null if there are none.
[[nodiscard]] const WinogradKernels* FindWinograd(int lanes);

/// How a convolution is cut into runs of tiles, for at most that many threads.
class WinogradPlan {
 public:
  /// Of `shape` only the sizes count.
  WinogradPlan(const WinogradKernels& kernels, const WinogradTask& shape, int threads);

  /// Bytes of scratch memory of all threads together.
  [[nodiscard]] std::int64_t scratchBytes() const noexcept;

  /// Bytes of the transformed weights: four times the untransformed ones.
  [[nodiscard]] std::int64_t packedBytes() const noexcept;

  /// Transforms weights [outputs, inputs, 3, 3], on the OpenMP pool.
  void Pack(const float* weights, float* packed) const;

  /// Runs the convolution on the OpenMP pool. The scratch is aligned to 64 bytes; its contents do not matter.
  void Run(const WinogradTask& task, float* scratch) const;

 private:
  const WinogradKernels& kernels_;
  std::int64_t inputs_;
  std::int64_t outputs_;
  int threads_;
  std::int64_t tiles_;     ///< of all images
  std::int64_t capacity_;  ///< tiles of a run
  std::int64_t scratch_;   ///< floats of one thread
};

}  // namespace ulmora::engine::cpu
