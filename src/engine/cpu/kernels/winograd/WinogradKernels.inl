// The kernels, for whatever instruction set the including source is compiled for. That source defines kLanes, kRows
// and kColumns before. Everything here has internal linkage and calls no inline function of any library: the linker
// must never pick an instance for another instruction set.

#include "engine/cpu/kernels/Lanes.inl"
#include "engine/cpu/kernels/MatrixKernel.inl"

// The polynomials are evaluated at 0, +-A, +-B and infinity. These lose half as many digits as the textbook's 1 and 2.
constexpr float kA = 0.625F;
constexpr float kB = 1.5F;
constexpr float kA2 = kA * kA;
constexpr float kB2 = kB * kB;

constexpr std::int64_t kPatch = kWinogradPatch;
constexpr std::int64_t kTile = kWinogradTile;
constexpr std::int64_t kProducts = kWinogradProducts;

/// 6 source values to 6 factors; elements `step` apart.
template <int Step>
LUMVANE_INLINE void TransformSource(const Lanes* d, Lanes* v) {
  const Lanes even1 = d[4 * Step] - kB2 * d[2 * Step];
  const Lanes odd1 = kA * (d[3 * Step] - kB2 * d[1 * Step]);
  const Lanes even2 = d[4 * Step] - kA2 * d[2 * Step];
  const Lanes odd2 = kB * (d[3 * Step] - kA2 * d[1 * Step]);
  v[0 * Step] = kA2 * kB2 * d[0 * Step] - (kA2 + kB2) * d[2 * Step] + d[4 * Step];
  v[5 * Step] = kA2 * kB2 * d[1 * Step] - (kA2 + kB2) * d[3 * Step] + d[5 * Step];
  v[1 * Step] = even1 + odd1;
  v[2 * Step] = even1 - odd1;
  v[3 * Step] = even2 + odd2;
  v[4 * Step] = even2 - odd2;
}

/// 6 products to 4 results; products `Step` apart, results one after another `To` apart.
template <int Step, int To>
LUMVANE_INLINE void TransformProducts(const Lanes* m, Lanes* y) {
  const Lanes sum1 = m[1 * Step] + m[2 * Step];
  const Lanes difference1 = m[1 * Step] - m[2 * Step];
  const Lanes sum2 = m[3 * Step] + m[4 * Step];
  const Lanes difference2 = m[3 * Step] - m[4 * Step];
  y[0 * To] = m[0 * Step] + sum1 + sum2;
  y[1 * To] = kA * difference1 + kB * difference2;
  y[2 * To] = kA2 * sum1 + kB2 * sum2;
  y[3 * To] = kA2 * kA * difference1 + kB2 * kB * difference2 + m[5 * Step];
}

/// Where a tile lies.
struct Place {
  std::int64_t image, row, column;  ///< of its first result
};

LUMVANE_INLINE Place PlaceOf(const WinogradTask& task, std::int64_t tile) {
  const std::int64_t across = (task.resultWidth + kTile - 1) / kTile;
  const std::int64_t down = (task.resultHeight + kTile - 1) / kTile;
  const std::int64_t row = tile / across;
  return {row / down, row % down * kTile, tile % across * kTile};
}

/// Reads the 6 x 6 source pixels of a tile; what lies outside the image is 0.
LUMVANE_INLINE void ReadPatch(const WinogradTask& task, const Place& place, const float* block, Lanes* patch) {
  const std::int64_t top = place.row - task.padTop;
  const std::int64_t left = place.column - task.padLeft;
  const float* corner = block + top * task.from.row + left * task.from.pixel;
  if (top >= 0 && left >= 0 && top + kPatch <= task.height && left + kPatch <= task.width) {
    for (std::int64_t y = 0; y < kPatch; ++y) {
      for (std::int64_t x = 0; x < kPatch; ++x) {
        patch[y * kPatch + x] = Load(corner + y * task.from.row + x * task.from.pixel);
      }
    }
    return;
  }
  for (std::int64_t y = 0; y < kPatch; ++y) {
    for (std::int64_t x = 0; x < kPatch; ++x) {
      const bool inside = top + y >= 0 && top + y < task.height && left + x >= 0 && left + x < task.width;
      patch[y * kPatch + x] = inside ? Load(corner + y * task.from.row + x * task.from.pixel) : Lanes{};
    }
  }
}

/// Factors of all tiles of the run: [36] planes of [inputs / lanes][capacity][lanes].
void TransformTiles(const WinogradTask& task, std::int64_t first, std::int64_t count, std::int64_t capacity,
                    std::int64_t plane, float* factors) {
  for (std::int64_t block = 0; block < task.inputs / kLanes; ++block) {
    for (std::int64_t i = 0; i < count; ++i) {
      const Place place = PlaceOf(task, first + i);
      const float* pixels = task.source + place.image * task.from.image + block * task.from.block;
      Lanes patch[kProducts];
      Lanes half[kProducts];
      ReadPatch(task, place, pixels, patch);
      for (int x = 0; x < kPatch; ++x) TransformSource<kPatch>(patch + x, half + x);
      float* to = factors + (block * capacity + i) * kLanes;
      for (int y = 0; y < kPatch; ++y) {
        Lanes row[kPatch];
        TransformSource<1>(half + y * kPatch, row);
        for (int x = 0; x < kPatch; ++x) Store(to + (y * kPatch + x) * plane, row[x]);
      }
    }
  }
}

/// The 36 matrix products of a run: [36] planes of [outputs / lanes][capacity][lanes].
void MultiplyTiles(const WinogradTask& task, std::int64_t count, std::int64_t capacity, const float* factors,
                   std::int64_t factorPlane, float* products, std::int64_t productPlane) {
  const std::int64_t inputs = task.inputs / kLanes;
  const std::int64_t outputs = task.outputs / kLanes;
  const std::int64_t blockStep = capacity * kLanes;
  for (std::int64_t product = 0; product < kProducts; ++product) {
    const float* weights = task.weights + product * task.inputs * task.outputs;
    const float* from = factors + product * factorPlane;
    float* to = products + product * productPlane;
    for (std::int64_t output = 0; output < outputs;) {
      const bool whole = output + kColumns <= outputs;
      for (std::int64_t tile = 0; tile < count; tile += kRows) {
        float* block = to + output * blockStep + tile * kLanes;
        if (whole) {
          Multiply<kColumns>::Run(from + tile * kLanes, weights, inputs, blockStep, block);
        } else {
          Multiply<1>::Run(from + tile * kLanes, weights, inputs, blockStep, block);
        }
      }
      const std::int64_t columns = whole ? kColumns : 1;
      weights += columns * kLanes * task.inputs;
      output += columns;
    }
  }
}

LUMVANE_INLINE Lanes Finish(const WinogradTask& task, Lanes x, std::int64_t offset) {
  for (int i = 0; i < task.stageCount; ++i) {
    const WinogradStage& stage = task.stages[i];
    switch (stage.kind) {
      case WinogradStage::Kind::Relu:
        x = x > 0.0F ? x : stage.alpha * x;
        break;
      case WinogradStage::Kind::Linear:
        x = stage.alpha * x + stage.beta;
        break;
      case WinogradStage::Kind::Clip:
        x = x > stage.alpha ? x : Lanes{} + stage.alpha;
        x = x < stage.beta ? x : Lanes{} + stage.beta;
        break;
      case WinogradStage::Kind::Add:
        x += stage.alpha * Load(stage.tensor + offset);
        break;
      case WinogradStage::Kind::Multiply:
        x *= Load(stage.tensor + offset);
        break;
    }
  }
  return x;
}

void WriteTiles(const WinogradTask& task, std::int64_t first, std::int64_t count, std::int64_t capacity,
                const float* products, std::int64_t plane) {
  for (std::int64_t block = 0; block < task.outputs / kLanes; ++block) {
    const Lanes bias = task.bias != nullptr ? Load(task.bias + block * kLanes) : Lanes{};
    for (std::int64_t i = 0; i < count; ++i) {
      const float* from = products + (block * capacity + i) * kLanes;
      Lanes half[kTile * kPatch];
      for (int x = 0; x < kPatch; ++x) {
        Lanes column[kPatch];
        for (int y = 0; y < kPatch; ++y) column[y] = Load(from + (y * kPatch + x) * plane);
        TransformProducts<1, kPatch>(column, half + x);
      }
      const Place place = PlaceOf(task, first + i);
      const std::int64_t offset = place.image * task.to.image + block * task.to.block + place.row * task.to.row +
                                  place.column * task.to.pixel;
      const std::int64_t height = task.resultHeight - place.row;
      const std::int64_t width = task.resultWidth - place.column;
      for (int y = 0; y < kTile && y < height; ++y) {
        Lanes row[kTile];
        TransformProducts<1, 1>(half + y * kPatch, row);
        for (int x = 0; x < kTile && x < width; ++x) {
          const std::int64_t at = offset + y * task.to.row + x * task.to.pixel;
          Store(task.result + at, Finish(task, row[x] + bias, at));
        }
      }
    }
  }
}

LUMVANE_INLINE std::int64_t PlaneOf(std::int64_t channels, std::int64_t capacity) {
  return channels * capacity + kPlaneGap;
}

void RunTiles(const WinogradTask& task, std::int64_t first, std::int64_t count, std::int64_t capacity,
              float* scratch) {
  const std::int64_t factorPlane = PlaneOf(task.inputs, capacity);
  const std::int64_t productPlane = PlaneOf(task.outputs, capacity);
  float* products = scratch + kProducts * factorPlane;
  TransformTiles(task, first, count, capacity, factorPlane, scratch);
  MultiplyTiles(task, count, capacity, scratch, factorPlane, products, productPlane);
  WriteTiles(task, first, count, capacity, products, productPlane);
}

/// 3 weights to 6 factors; elements `Step` apart.
template <int Step>
LUMVANE_INLINE void TransformWeights(const Lanes* g, Lanes* u) {
  constexpr float at0 = 1.0F / (kA2 * kB2);
  constexpr float atA = 1.0F / (2.0F * kA2 * (kA2 - kB2));
  constexpr float atB = 1.0F / (2.0F * kB2 * (kB2 - kA2));
  const Lanes evenA = g[0] + kA2 * g[2 * Step];
  const Lanes evenB = g[0] + kB2 * g[2 * Step];
  const Lanes oddA = kA * g[1 * Step];
  const Lanes oddB = kB * g[1 * Step];
  u[0 * Step] = at0 * g[0];
  u[1 * Step] = atA * (evenA + oddA);
  u[2 * Step] = atA * (evenA - oddA);
  u[3 * Step] = atB * (evenB + oddB);
  u[4 * Step] = atB * (evenB - oddB);
  u[5 * Step] = g[2 * Step];
}

/// To [36][groups of kColumns blocks of outputs][inputs][outputs of the group]; blocks that fill no group stand alone.
void PackBlock(const float* weights, std::int64_t outputs, std::int64_t inputs, std::int64_t block, std::int64_t begin,
               std::int64_t end, float* packed) {
  constexpr int kKernel = 3;
  const std::int64_t group = block / kColumns * kColumns;
  const bool whole = group + kColumns <= outputs / kLanes;
  const std::int64_t start = whole ? group : block;
  const std::int64_t columns = whole ? kColumns : 1;
  for (std::int64_t i = begin; i < end; ++i) {
    Lanes g[kKernel * kPatch];
    for (int tap = 0; tap < kKernel * kKernel; ++tap) {
      Lanes taps = {};
      for (int lane = 0; lane < kLanes; ++lane) {
        taps[lane] = weights[((block * kLanes + lane) * inputs + i) * kKernel * kKernel + tap];
      }
      g[tap / kKernel * kPatch + tap % kKernel] = taps;
    }
    Lanes half[kProducts];
    for (int x = 0; x < kKernel; ++x) TransformWeights<kPatch>(g + x, half + x);
    float* to = packed + (start * inputs + i * columns + block - start) * kLanes;
    for (int y = 0; y < kPatch; ++y) {
      Lanes row[kPatch];
      TransformWeights<1>(half + y * kPatch, row);
      for (int x = 0; x < kPatch; ++x) Store(to + (y * kPatch + x) * inputs * outputs, row[x]);
    }
  }
}

#undef LUMVANE_INLINE
