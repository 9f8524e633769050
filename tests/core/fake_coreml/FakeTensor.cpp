#include "tests/core/fake_coreml/FakeCoreML.h"

#include <cstring>
#include <functional>
#include <limits>
#include <numeric>

namespace ulmora::fake_coreml {

namespace {

std::size_t SizeOf(Element element) {
  return (static_cast<std::size_t>(element) & 0xffU) / 8;
}

}  // namespace

Tensor::Tensor(std::vector<long> size, Element type, long sampleGap, long rowGap, long planeGap)
    : shape(std::move(size)), strides(shape.size(), 1 + sampleGap), element(type) {
  const std::size_t rank = shape.size();
  for (std::size_t axis = rank - 1; axis-- > 0;) {
    strides[axis] = strides[axis + 1] * shape[axis + 1];
    if (axis + 2 == rank) strides[axis] += rowGap;
    if (axis + 3 == rank) strides[axis] += planeGap;
  }
  bytes.resize(static_cast<std::size_t>(strides[0] * shape[0]) * SizeOf(element));
  if (element != Element::Float32) return;
  const float gap = std::numeric_limits<float>::quiet_NaN();
  for (std::size_t at = 0; at < bytes.size(); at += sizeof gap) std::memcpy(&bytes[at], &gap, sizeof gap);
}

float& Tensor::At(long c, long y, long x) {
  return reinterpret_cast<float*>(bytes.data())[c * strides[1] + y * strides[2] + x * strides[3]];
}

float Tensor::At(long c, long y, long x) const {
  return reinterpret_cast<const float*>(bytes.data())[c * strides[1] + y * strides[2] + x * strides[3]];
}

World& TheWorld() {
  static World world;
  return world;
}

}  // namespace ulmora::fake_coreml
