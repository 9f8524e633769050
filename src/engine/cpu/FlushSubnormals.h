#pragma once
// Arithmetic on subnormal numbers is a hundred times slower than on others. Networks that saturate meet them.

#include <cstdint>
#include <vector>

namespace ulmora::engine::cpu {

/// Makes every thread of the OpenMP pool, the calling one included, treat subnormal operands and results as zero for
/// the lifetime of a Scope, and gives each its own mode back afterwards. The mode belongs to a thread, so setting it on
/// the caller alone would leave the workers slow; a worker that is born in between inherits it from the caller.
class FlushSubnormals {
 public:
  FlushSubnormals();

  class Scope {
   public:
    explicit Scope(FlushSubnormals& owner);
    ~Scope();
    Scope(const Scope&) = delete;  // restores once
    Scope& operator=(const Scope&) = delete;

   private:
    FlushSubnormals& owner_;
  };

 private:
  std::vector<std::uint64_t> saved_;  ///< control word of each thread; sized once, so that a Scope does not allocate
};

/// The calling thread's floating-point control word, and the bits of it that a Scope sets; for tests.
[[nodiscard]] std::uint64_t FloatControl() noexcept;
[[nodiscard]] std::uint64_t FlushBits() noexcept;

}  // namespace ulmora::engine::cpu
