#pragma once
// Counts in whole units.

#include <cstdint>

namespace ulmora::engine::cpu {

/// How many units `count`, which is not negative, takes.
[[nodiscard]] constexpr std::int64_t DivideUp(std::int64_t count, std::int64_t unit) noexcept {
  return (count + unit - 1) / unit;
}

/// The least multiple of `unit` that holds `count`, which is not negative.
[[nodiscard]] constexpr std::int64_t RoundUp(std::int64_t count, std::int64_t unit) noexcept {
  return DivideUp(count, unit) * unit;
}

}  // namespace ulmora::engine::cpu
