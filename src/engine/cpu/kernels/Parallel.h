#pragma once
// How the kernels share their work among the threads of the OpenMP pool: one region each, in equal parts.

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace ulmora::engine::cpu {

/// Below this many bytes touched, waking the pool costs more than it saves.
inline constexpr std::int64_t kBytesWorthThreads = 64 * 1024;

/// Calls work(begin, end) so that the calls cover [0, count), on as many threads as the bytes that are touched pay for.
template <typename Work>
void ParallelRanges(std::int64_t count, std::int64_t bytes, const Work& work) {
  const std::int64_t worth = std::min(count, bytes / kBytesWorthThreads);
  const int threads = static_cast<int>(std::clamp<std::int64_t>(worth, 1, omp_get_max_threads()));
  if (threads == 1) {
    work(std::int64_t{0}, count);
    return;
  }
  // All of the pool or one thread: a region of another size would end the pool's other threads, to be made anew later.
#pragma omp parallel
  {
    const std::int64_t parts = omp_get_num_threads();
    const std::int64_t part = omp_get_thread_num();
    work(count * part / parts, count * (part + 1) / parts);
  }
}

inline void ParallelCopy(const char* from, char* to, std::int64_t bytes) {
  ParallelRanges(bytes, 2 * bytes, [&](std::int64_t begin, std::int64_t end) {
    if (end > begin) std::memcpy(to + begin, from + begin, static_cast<std::size_t>(end - begin));
  });
}

}  // namespace ulmora::engine::cpu
