#pragma once
// Range statistics over scalar samples, for diagnostics alone: no observed range ever scales an image.

#include <cstdint>
#include <limits>
#include <string>

namespace ulmora::cli {

struct InputRange {
  std::uint64_t samples = 0;                                  ///< every sample offered, finite or not
  std::uint64_t finite = 0;                                   ///< samples that are finite
  std::uint64_t belowZero = 0;                                ///< finite samples below 0 after division by the scale
  std::uint64_t aboveOne = 0;                                 ///< finite samples above 1 after division by the scale
  double minimum = std::numeric_limits<double>::infinity();   ///< least finite sample, in stored units
  double maximum = -std::numeric_limits<double>::infinity();  ///< greatest finite sample, in stored units

  /// Adds one sample in stored units; `scale` is the fixed divisor of its sample format.
  void Add(double sample, double scale);

  /// Adds all that another record of the same scale holds, as if its samples had been added here.
  void Merge(const InputRange& other);

  /// The text of the statistics, numbers with 17 significant digits. Percentages are of all samples.
  [[nodiscard]] std::string Describe(double scale) const;
};

}  // namespace ulmora::cli
