#pragma once
// Descriptions of matrices and batches of them, as the library's matrix product takes them.

#include "engine/Tensor.h"
#include "engine/cpu/OneDnn.h"

#include <cstddef>
#include <cstdint>

namespace ulmora::engine::cpu {

/// Dense matrices in row-major order, or of columns if they are stored `transposed`; `batch` are the dimensions before.
[[nodiscard]] onednn::Desc Matrices(const Shape& batch, std::int64_t rows, std::int64_t columns, bool transposed);

/// Leading dimensions with ones in front, so that there are `rank` of them: all operands of a product have as many.
[[nodiscard]] Shape Widened(Shape batch, std::size_t rank);

}  // namespace ulmora::engine::cpu
