#include "engine/cpu/lower/ReduceViews.h"

namespace ulmora::engine::cpu {

std::optional<ReduceView> ViewOf(const Shape& shape, Layout layout, const std::vector<bool>& reduced) {
  if (layout == Layout::Blocked && (!FillsBlocks(shape) || reduced[1])) return std::nullopt;
  ReduceView view;
  enum class Place { Before, Within, After } place = Place::Before;
  for (const Loop& loop : MemoryOrder(shape, layout)) {
    if (loop.count == 1) continue;
    if (reduced[loop.axis]) {
      if (place == Place::After) return std::nullopt;
      place = Place::Within;
      view.count *= loop.count;
    } else {
      if (place == Place::Within) place = Place::After;
      (place == Place::Before ? view.outer : view.inner) *= loop.count;
    }
  }
  return view;
}

}  // namespace ulmora::engine::cpu
