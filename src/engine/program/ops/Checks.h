#pragma once
// Checks of operands that the shape rules share. Each Fails through the call with parameter, found and expected.

#include "engine/program/OpCall.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace ulmora::engine::program {

void RequireFloats(const OpCall& call, std::string_view parameter, std::size_t index = 0);
void RequireInts(const OpCall& call, std::string_view parameter, std::size_t index = 0);
void RequireBools(const OpCall& call, std::string_view parameter, std::size_t index = 0);
/// Floats or integers.
void RequireNumbers(const OpCall& call, std::string_view parameter, std::size_t index = 0);
/// Anything but strings.
void RequireData(const OpCall& call, std::string_view parameter, std::size_t index = 0);

/// Rank within [least, most].
void RequireRank(const OpCall& call, std::string_view parameter, std::size_t least, std::size_t most);

/// A float vector [length].
void RequireFloatVector(const OpCall& call, std::string_view parameter, std::int64_t length);

/// Exactly this shape.
void RequireShape(const OpCall& call, std::string_view parameter, const Shape& expected);

/// ElementCount, whose complaint is made through the call.
[[nodiscard]] std::int64_t CountElements(const OpCall& call, const Shape& shape);

/// Ints of the parameter, `length` of them, each within [least, 2^31); all `fallback` if it is absent.
[[nodiscard]] std::vector<std::int64_t> IntsOr(const OpCall& call, std::string_view parameter, std::size_t length,
                                               std::int64_t least, std::int64_t fallback);

/// The shape rule of operations whose only result is like `x`, whatever x holds.
[[nodiscard]] std::vector<TensorType> LikeX(const OpCall& call);
/// The same for operations on floats alone.
[[nodiscard]] std::vector<TensorType> LikeFloatX(const OpCall& call);

}  // namespace ulmora::engine::program
