#include "engine/cpu/Lowering.h"

#include "engine/cpu/lower/Families.h"

#include <map>
#include <stdexcept>
#include <string>

namespace ulmora::engine::cpu {
namespace {

std::map<std::string_view, Lower> CollectLowerings() {
  std::map<std::string_view, Lower> table;
  for (const auto family :
       {ActivationLowerings, AttentionLowerings, CastLowerings, ConvLowerings, ElementwiseBinaryLowerings,
        ElementwiseUnaryLowerings, JoinLowerings, LinearLowerings, NormalizationLowerings, PoolLowerings,
        QuantizeLowerings, RearrangeLowerings, ReductionLowerings, ReshapeLowerings, ResizeLowerings, SliceLowerings}) {
    for (const LoweringEntry& entry : family()) {
      if (!table.emplace(entry.key, entry.lower).second) {
        throw std::logic_error("operation " + std::string(entry.key) + " has two lowerings");
      }
    }
  }
  return table;
}

}  // namespace

program::ValueId LowerCall::Operand(std::string_view parameter, std::size_t index) const {
  return OperandsOf(operation, parameter).at(index);
}

Lower FindLowering(std::string_view key) {
  static const std::map<std::string_view, Lower> table = CollectLowerings();
  const auto found = table.find(key);
  return found != table.end() ? found->second : nullptr;
}

double MemoryCost(std::int64_t bytes) {
  constexpr double kBytesPerMicrosecond = 13'000.0;
  constexpr double kStep = 5.0;
  return kStep + static_cast<double>(bytes) / kBytesPerMicrosecond;
}

double ArithmeticCost(double operations) {
  // Measured peak of one core in direct convolutions, with and without AVX-512.
  static const double perMicrosecond = onednn::ChannelBlock() == 16 ? 165'000.0 : 80'000.0;
  return operations / perMicrosecond;
}

std::vector<Layout> LayoutsOf(const Shape& shape) {
  std::vector<Layout> layouts = {Layout::Plain};
  if (HasChannels(shape)) layouts.push_back(Layout::ChannelsLast);
  if (FillsBlocks(shape)) layouts.push_back(Layout::Blocked);
  return layouts;
}

}  // namespace ulmora::engine::cpu
