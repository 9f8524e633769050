#pragma once
// A network's output against a recorded one.

#include "engine/Model.h"
#include "tools/Arguments.h"

#include <cstddef>
#include <ostream>
#include <span>
#include <string>
#include <vector>

namespace ulmora::tools {

/// How far values are from recorded ones.
struct Difference {
  double largest = 0;     ///< absolute; infinite if a value is not finite where the recorded one is another
  double range = 0;       ///< of the recorded values: largest minus smallest
  std::size_t index = 0;  ///< where the largest difference is

  /// largest / range; of a recorded output without range, the difference itself.
  [[nodiscard]] double Share() const noexcept { return range > 0 ? largest / range : largest; }
};

/// Compares as many values. Values that are not finite are equal if they are the same, or both not-a-number.
[[nodiscard]] Difference Compare(std::span<const float> found, std::span<const float> recorded);

/// All float32 values of a little-endian file. Throws std::runtime_error, naming the file, if it cannot be read, is
/// empty or holds a part of a value.
[[nodiscard]] std::vector<float> ReadFloats(const std::string& file);

/// What a check found.
struct CheckResult {
  engine::Shape inputShape;
  engine::Shape outputShape;
  Difference difference;
  double tolerance = 0;  ///< as a share of the range
  bool passes = false;
};

/// Runs the model on the recorded input. Throws engine::Error and std::runtime_error.
[[nodiscard]] CheckResult RunCheck(engine::Model& model, const Arguments& arguments);

void WriteCheck(std::ostream& stream, const CheckResult& result);

}  // namespace ulmora::tools
