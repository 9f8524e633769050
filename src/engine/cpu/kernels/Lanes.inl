// Vectors of kLanes floats, for whatever instruction set the including source is compiled for. That source defines kLanes
// before and includes this within a namespace without a name: the linker must never pick an instance for another
// instruction set.

typedef float Lanes __attribute__((vector_size(4 * kLanes)));
typedef float UnalignedLanes __attribute__((vector_size(4 * kLanes), aligned(4), may_alias));

#define LUMVANE_INLINE inline __attribute__((always_inline))

LUMVANE_INLINE Lanes Load(const float* from) {
  return *reinterpret_cast<const UnalignedLanes*>(from);
}

LUMVANE_INLINE void Store(float* to, Lanes value) {
  *reinterpret_cast<UnalignedLanes*>(to) = value;
}
