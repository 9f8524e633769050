#pragma once
// Memory on a cache-line boundary, zeroed, with one owner.

#include <cstddef>
#include <memory>
#include <new>

namespace ulmora::engine::cpu {

class AlignedBuffer {
 public:
  static constexpr std::size_t kAlignment = 64;

  AlignedBuffer() = default;
  /// Throws std::bad_alloc.
  explicit AlignedBuffer(std::size_t bytes);

  [[nodiscard]] void* data() const noexcept { return memory_.get(); }
  [[nodiscard]] std::size_t size() const noexcept { return bytes_; }

 private:
  struct Free {
    void operator()(void* memory) const noexcept { ::operator delete (memory, std::align_val_t{kAlignment}); }
  };

  std::unique_ptr<void, Free> memory_;
  std::size_t bytes_ = 0;
};

}  // namespace ulmora::engine::cpu
