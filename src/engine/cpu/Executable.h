#pragma once
// A program compiled for the CPU: prepared primitives with their arguments, weights reordered once, one arena.

#include "engine/Tensor.h"
#include "engine/program/Program.h"

#include <memory>
#include <span>

namespace ulmora::engine::cpu {

/// Runs one specialized and rewritten program. Running does not allocate (operations that run by their reference
/// evaluation excepted) and flushes subnormal numbers on every computing thread for the time of the run.
class Executable {
 public:
  /// Compiles. The program must have one input and one output. Throws Error(Run).
  explicit Executable(const program::Program& program);
  ~Executable();
  Executable(Executable&&) noexcept;
  Executable& operator=(Executable&&) noexcept;

  /// The dense row-major buffer that Run reads.
  [[nodiscard]] std::span<float> input() noexcept;
  [[nodiscard]] const Shape& inputShape() const noexcept;
  /// The dense row-major buffer that Run writes; valid until the next Run.
  [[nodiscard]] std::span<const float> output() const noexcept;
  [[nodiscard]] const Shape& outputShape() const noexcept;

  /// Throws Error(Run) if a primitive fails.
  void Run();

  /// Bytes of intermediate tensors (the arena) and of reordered weights, for the memory account of a run.
  [[nodiscard]] std::size_t arenaBytes() const noexcept;
  [[nodiscard]] std::size_t weightBytes() const noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace ulmora::engine::cpu
