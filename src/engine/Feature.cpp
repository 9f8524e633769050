#include "engine/Feature.h"

#include <algorithm>

namespace ulmora::engine {
namespace {

/// Longer lists are cut off in messages.
constexpr std::size_t kShownShapes = 8;

std::string Describe(const SizeRange& range) {
  if (range.least == range.most) return std::to_string(range.least);
  if (range.most == SizeRange::kUnbounded) return std::to_string(range.least) + " or more";
  return std::to_string(range.least) + " to " + std::to_string(range.most);
}

}  // namespace

bool Accepts(const Feature& feature, const Shape& shape) {
  if (!feature.enumerated.empty()) return std::ranges::count(feature.enumerated, shape) > 0;
  return feature.ranges.empty() ||
         std::ranges::equal(shape, feature.ranges, [](std::int64_t size, const SizeRange& range) {
           return size >= range.least && size <= range.most;
         });
}

std::string DescribeAccepted(const Feature& feature) {
  std::string text;
  if (!feature.enumerated.empty()) {
    const std::size_t shown = std::min(feature.enumerated.size(), kShownShapes);
    for (std::size_t i = 0; i < shown; ++i) {
      const bool isLast = i + 1 == feature.enumerated.size();
      if (i > 0) text += isLast ? " or " : ", ";
      text += ToString(feature.enumerated[i]);
    }
    const std::size_t hidden = feature.enumerated.size() - shown;
    return hidden == 0 ? text : text + " or one of " + std::to_string(hidden) + " others";
  }
  if (feature.ranges.empty()) return "any shape";
  for (const SizeRange& range : feature.ranges) text += (text.empty() ? "[" : ", ") + Describe(range);
  return text + "]";
}

}  // namespace ulmora::engine
