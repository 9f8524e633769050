#include "tools/Check.h"

#include "tools/InputShape.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace ulmora::tools {
namespace {

/// Recorded tensors are far smaller; a device that never ends must not fill the memory.
constexpr std::size_t kMaxBytes = std::size_t{1} << 32;

double DifferenceOf(float found, float recorded) {
  if (found == recorded || (std::isnan(found) && std::isnan(recorded))) return 0;
  const double difference = std::abs(static_cast<double>(found) - static_cast<double>(recorded));
  return std::isfinite(difference) ? difference : std::numeric_limits<double>::infinity();
}

std::string Short(double number) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.3g", number);
  return text.data();
}

}  // namespace

Difference Compare(std::span<const float> found, std::span<const float> recorded) {
  Difference result;
  double lowest = std::numeric_limits<double>::infinity();
  double highest = -lowest;
  for (std::size_t i = 0; i < recorded.size(); ++i) {
    if (std::isfinite(recorded[i])) {
      lowest = std::min<double>(lowest, recorded[i]);
      highest = std::max<double>(highest, recorded[i]);
    }
    const double difference = DifferenceOf(found[i], recorded[i]);
    if (difference > result.largest) {
      result.largest = difference;
      result.index = i;
    }
  }
  result.range = std::max(0.0, highest - lowest);
  return result;
}

std::vector<float> ReadFloats(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw std::runtime_error("cannot open '" + file + "'");
  std::vector<float> values;
  std::array<char, 1 << 16> buffer{};
  std::size_t left = 0;
  while (stream.read(buffer.data(), buffer.size()), stream.gcount() > 0) {
    const auto count = static_cast<std::size_t>(stream.gcount());
    left = count % sizeof(float);
    for (std::size_t i = 0; i + sizeof(float) <= count; i += sizeof(float)) {
      std::uint32_t bits = 0;
      for (std::size_t k = 0; k < sizeof(float); ++k) {
        bits |= static_cast<std::uint32_t>(static_cast<unsigned char>(buffer[i + k])) << (8 * k);
      }
      values.push_back(std::bit_cast<float>(bits));
    }
    if (values.size() > kMaxBytes / sizeof(float)) throw std::runtime_error("'" + file + "' is too large");
  }
  if (stream.bad() || values.empty() || left > 0) {
    throw std::runtime_error("'" + file + "' holds no whole number of float32 values, or none");
  }
  return values;
}

CheckResult RunCheck(engine::Model& model, const Arguments& arguments) {
  const std::vector<float> input = ReadFloats(arguments.check->input);
  const std::vector<float> recorded = ReadFloats(arguments.check->output);
  const engine::Shape shape = ShapeForCount(model, arguments.shape, std::ssize(input));
  const std::span<float> buffer = model.BindInput(shape);
  std::ranges::copy(input, buffer.begin());
  const engine::OutputView output = model.Run();
  if (output.data.size() != recorded.size()) {
    throw std::runtime_error("the network gives " + engine::ToString(output.shape) + ", the recorded output has " +
                             std::to_string(recorded.size()) + " values");
  }
  const Difference difference = Compare(output.data, recorded);
  return {shape, output.shape, difference, arguments.tolerance, difference.Share() <= arguments.tolerance};
}

void WriteCheck(std::ostream& stream, const CheckResult& result) {
  const Difference& difference = result.difference;
  stream << "Input: " << engine::ToString(result.inputShape) << '\n'
         << "Output: " << engine::ToString(result.outputShape) << ", recorded range " << Short(difference.range) << '\n'
         << "Largest difference: " << Short(difference.largest) << " at element " << difference.index << ", "
         << Short(difference.Share()) << " of the range\n"
         << (result.passes ? "Passed" : "Missed") << ": tolerance " << Short(result.tolerance) << '\n';
}

}  // namespace ulmora::tools
