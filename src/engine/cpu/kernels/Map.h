#pragma once
// Functions of single elements, over memory in whatever order.

#include "engine/cpu/kernels/Parallel.h"

#include <cstdint>

namespace ulmora::engine::cpu {

/// to[i] = function(from[i]) for count elements; `to` may be `from`.
template <typename In, typename Out, typename Function>
void MapElements(const In* from, Out* to, std::int64_t count, const Function& function) {
  // Counted as more bytes than they are: such functions take many times the time of the memory traffic.
  constexpr std::int64_t kWork = 8;
  ParallelRanges(count, kWork * count * static_cast<std::int64_t>(sizeof(In)),
                 [&](std::int64_t begin, std::int64_t end) {
                   for (std::int64_t i = begin; i < end; ++i) to[i] = function(from[i]);
                 });
}

}  // namespace ulmora::engine::cpu
