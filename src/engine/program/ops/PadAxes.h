#pragma once
// The borders that a pad adds, for its shape rule, its evaluation and its lowering.

#include "engine/program/OpCall.h"

#include <cstdint>
#include <vector>

namespace ulmora::engine::program {

enum class PadMode : std::uint8_t {
  Constant,
  Reflect,    ///< mirrored about the edge element, which is not repeated
  Replicate,  ///< the edge element repeated
};

/// Border of one dimension. Negative amounts, which only the constant mode knows, cut elements off.
struct PadAxis {
  std::int64_t size = 0;
  std::int64_t before = 0;
  std::int64_t after = 0;
};

[[nodiscard]] PadMode ModeOfPad(const OpCall& call);

/// One per dimension of x, zero where `pad` does not reach. Fails on impossible operands.
[[nodiscard]] std::vector<PadAxis> PadAxes(const OpCall& call);

/// Which element of the dimension stands at `index` of the padded one, -1 for the constant.
[[nodiscard]] std::int64_t PadSource(const PadAxis& axis, PadMode mode, std::int64_t index) noexcept;

}  // namespace ulmora::engine::program
