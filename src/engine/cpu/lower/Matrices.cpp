#include "engine/cpu/lower/Matrices.h"

namespace ulmora::engine::cpu {

onednn::Desc Matrices(const Shape& batch, std::int64_t rows, std::int64_t columns, bool transposed) {
  std::int64_t stride = rows * columns;
  onednn::Dims dims(batch.begin(), batch.end());
  onednn::Dims strides(dims.size());
  for (std::size_t i = dims.size(); i-- > 0;) {
    strides[i] = stride;
    stride *= dims[i];
  }
  dims.insert(dims.end(), {rows, columns});
  strides.insert(strides.end(), {transposed ? 1 : columns, transposed ? rows : 1});
  return {dims, dnnl::memory::data_type::f32, strides};
}

Shape Widened(Shape batch, std::size_t rank) {
  batch.insert(batch.begin(), rank - batch.size(), 1);
  return batch;
}

}  // namespace ulmora::engine::cpu
