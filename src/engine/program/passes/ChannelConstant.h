#pragma once
// Constants that an elementwise operation applies per channel.

#include "engine/program/Program.h"

#include <cstddef>
#include <optional>
#include <vector>

namespace ulmora::engine::program {

/// True if the value is a float constant that broadcasts to `shape` and varies along `axis` at most: a single element,
/// or the size of the axis there and 1 elsewhere.
[[nodiscard]] bool IsChannelConstant(const Program& program, ValueId id, const Shape& shape, std::size_t axis);

/// Its elements, one per index along the axis; none if it is no such constant.
[[nodiscard]] std::optional<std::vector<double>> ReadChannelConstant(const Program& program, ValueId id,
                                                                     const Shape& shape, std::size_t axis);

}  // namespace ulmora::engine::program
