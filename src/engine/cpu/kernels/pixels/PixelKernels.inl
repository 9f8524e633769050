// The kernels, for whatever instruction set the including source is compiled for. That source defines kLanes, kRows
// and kColumns before. Everything here has internal linkage and calls no inline function of any library: the linker
// must never pick an instance for another instruction set.

#include "engine/cpu/kernels/Lanes.inl"
#include "engine/cpu/kernels/MatrixKernel.inl"

/// The channels of a run from `channel` on: [blocks][capacity][kLanes].
LUMVANE_INLINE float* At(const PixelRun& run, std::int64_t channel) {
  return run.scratch + channel * run.capacity;
}

/// x with the lanes whose numbers differ in the bit `Distance` exchanged.
template <int Distance, int... kIndex>
LUMVANE_INLINE Lanes Exchange(Lanes x, std::integer_sequence<int, kIndex...>) {
  return __builtin_shufflevector(x, x, (kIndex ^ Distance)...);
}

/// The sum of all lanes, in all of them.
template <int Distance = kLanes / 2>
LUMVANE_INLINE Lanes SumEverywhere(Lanes x) {
  x += Exchange<Distance>(x, std::make_integer_sequence<int, kLanes>{});
  if constexpr (Distance > 1) {
    return SumEverywhere<Distance / 2>(x);
  } else {
    return x;
  }
}

/// The channels of the first pixel of the run, in a tensor.
LUMVANE_INLINE float* TensorAt(const PixelRun& run, const PixelStep& step) {
  return step.tensor + run.image * step.strides.image + run.first * step.strides.pixel;
}

void LoadChannels(const PixelRun& run, const PixelStep& step) {
  const float* from = TensorAt(run, step);
  float* to = At(run, step.to);
  for (std::int64_t block = 0; block < step.channels / kLanes; ++block) {
    for (std::int64_t i = 0; i < run.count; ++i) {
      Store(to + (block * run.capacity + i) * kLanes, Load(from + block * step.strides.block + i * step.strides.pixel));
    }
  }
}

void StoreChannels(const PixelRun& run, const PixelStep& step) {
  const float* from = At(run, step.from);
  float* to = TensorAt(run, step);
  for (std::int64_t block = 0; block < step.channels / kLanes; ++block) {
    for (std::int64_t i = 0; i < run.count; ++i) {
      Store(to + block * step.strides.block + i * step.strides.pixel, Load(from + (block * run.capacity + i) * kLanes));
    }
  }
}

/// Adds the bias to `columns` blocks of kRows pixels.
LUMVANE_INLINE void AddBias(const float* bias, std::int64_t columns, std::int64_t blockStep, float* products) {
  for (std::int64_t c = 0; c < columns; ++c) {
    const Lanes summand = Load(bias + c * kLanes);
    float* block = products + c * blockStep;
    for (int row = 0; row < kRows; ++row) Store(block + row * kLanes, Load(block + row * kLanes) + summand);
  }
}

void MultiplyMatrix(const PixelRun& run, const PixelStep& step) {
  const std::int64_t inputs = step.inputs / kLanes;
  const std::int64_t outputs = step.channels / kLanes;
  const std::int64_t blockStep = run.capacity * kLanes;
  const float* from = At(run, step.from);
  const float* weights = step.weights;
  for (std::int64_t output = 0; output < outputs;) {
    const std::int64_t columns = output + kColumns <= outputs ? kColumns : 1;
    for (std::int64_t i = 0; i < run.count; i += kRows) {
      float* block = At(run, step.to) + output * blockStep + i * kLanes;
      if (columns == kColumns) {
        Multiply<kColumns>::Run(from + i * kLanes, weights, inputs, blockStep, block);
      } else {
        Multiply<1>::Run(from + i * kLanes, weights, inputs, blockStep, block);
      }
      if (step.bias != nullptr) AddBias(step.bias + output * kLanes, columns, blockStep, block);
    }
    weights += columns * kLanes * step.inputs;
    output += columns;
  }
}

void Normalize(const PixelRun& run, const PixelStep& step) {
  const std::int64_t blocks = step.channels / kLanes;
  const std::int64_t blockStep = run.capacity * kLanes;
  const float share = 1.0F / static_cast<float>(step.channels);
  for (std::int64_t i = 0; i < run.count; ++i) {
    const float* from = At(run, step.from) + i * kLanes;
    float* to = At(run, step.to) + i * kLanes;
    Lanes sum = {};
    for (std::int64_t b = 0; b < blocks; ++b) sum += Load(from + b * blockStep);
    const Lanes mean = share * SumEverywhere(sum);
    // About the mean: a single pass in float would lose the variance of a pixel far from zero.
    Lanes squares = {};
    for (std::int64_t b = 0; b < blocks; ++b) {
      const Lanes distance = Load(from + b * blockStep) - mean;
      squares += distance * distance;
    }
    const float variance = share * SumEverywhere(squares)[0];
    const float scale = 1.0F / __builtin_sqrtf(variance + step.alpha);
    for (std::int64_t b = 0; b < blocks; ++b) {
      const Lanes normal = (Load(from + b * blockStep) - mean) * scale;
      Store(to + b * blockStep, normal * Load(step.weights + b * kLanes) + Load(step.bias + b * kLanes));
    }
  }
}

void ScaleChannels(const PixelRun& run, const PixelStep& step) {
  const float* factors = step.tensor + run.image * step.strides.image;
  for (std::int64_t block = 0; block < step.channels / kLanes; ++block) {
    const Lanes factor = Load(factors + block * kLanes);
    const float* from = At(run, step.from) + block * run.capacity * kLanes;
    float* to = At(run, step.to) + block * run.capacity * kLanes;
    for (std::int64_t i = 0; i < run.count; ++i) Store(to + i * kLanes, factor * Load(from + i * kLanes));
  }
}

/// function(from, other) for each element.
template <typename Function>
LUMVANE_INLINE void Map(const PixelRun& run, const PixelStep& step, const Function& function) {
  for (std::int64_t block = 0; block < step.channels / kLanes; ++block) {
    const std::int64_t skipped = block * run.capacity * kLanes;
    const float* from = At(run, step.from) + skipped;
    const float* other = At(run, step.other) + skipped;
    float* to = At(run, step.to) + skipped;
    for (std::int64_t i = 0; i < run.count * kLanes; i += kLanes) Store(to + i, function(Load(from + i), other + i));
  }
}

void RunStep(const PixelRun& run, const PixelStep& step) {
  const float alpha = step.alpha;
  const float beta = step.beta;
  switch (step.kind) {
    case PixelStep::Kind::Load:
      return LoadChannels(run, step);
    case PixelStep::Kind::Store:
      return StoreChannels(run, step);
    case PixelStep::Kind::Matrix:
      return MultiplyMatrix(run, step);
    case PixelStep::Kind::Norm:
      return Normalize(run, step);
    case PixelStep::Kind::Scale:
      return ScaleChannels(run, step);
    case PixelStep::Kind::Add:
      return Map(run, step, [alpha](Lanes x, const float* y) { return x + alpha * Load(y); });
    case PixelStep::Kind::Multiply:
      return Map(run, step, [](Lanes x, const float* y) { return x * Load(y); });
    case PixelStep::Kind::Relu:
      return Map(run, step, [alpha](Lanes x, const float*) { return x > 0.0F ? x : alpha * x; });
    case PixelStep::Kind::Linear:
      return Map(run, step, [alpha, beta](Lanes x, const float*) { return alpha * x + beta; });
    case PixelStep::Kind::Clip:
      return Map(run, step, [alpha, beta](Lanes x, const float*) {
        x = x > alpha ? x : Lanes{} + alpha;
        return x < beta ? x : Lanes{} + beta;
      });
  }
}

void RunSteps(const PixelRun& run, const PixelStep* steps, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) RunStep(run, steps[i]);
}

/// To [groups of kColumns blocks of outputs][inputs][outputs of the group]; blocks that fill no group stand alone.
void PackMatrix(const float* weights, std::int64_t outputs, std::int64_t inputs, float* packed) {
  for (std::int64_t first = 0; first < outputs;) {
    const std::int64_t group = first + kColumns * kLanes <= outputs ? kColumns * kLanes : kLanes;
    for (std::int64_t i = 0; i < inputs; ++i) {
      for (std::int64_t o = 0; o < group; ++o) *packed++ = weights[(first + o) * inputs + i];
    }
    first += group;
  }
}

#undef LUMVANE_INLINE
