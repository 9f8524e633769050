#pragma once
// The dimensions of a matrix product, for its shape rule, its evaluation and its lowering.

#include "engine/program/OpCall.h"

#include <cstdint>

namespace ulmora::engine::program {

/// A call of matmul, resolved by numpy's rules: batch dimensions broadcast, a vector counts as a matrix of one row (x)
/// or one column (y) whose extra dimension is dropped from the result.
struct MatmulDims {
  std::int64_t rows = 1;     ///< of x, after transposition
  std::int64_t inner = 1;    ///< columns of x, rows of y
  std::int64_t columns = 1;  ///< of y, after transposition
  bool transposeX = false;   ///< x is stored as [inner, rows]; never set for a vector
  bool transposeY = false;   ///< y is stored as [columns, inner]
  Shape xBatch;              ///< leading dimensions of x
  Shape yBatch;
  Shape batch;   ///< both, broadcast
  Shape result;  ///< batch + [rows, columns], without the dimension of a vector
};

/// Fails if the operands do not fit.
[[nodiscard]] MatmulDims DimsOfMatmul(const OpCall& call);

}  // namespace ulmora::engine::program
