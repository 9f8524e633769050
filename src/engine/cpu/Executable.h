#pragma once
// A program compiled for the CPU: prepared primitives with their arguments, weights reordered once, one arena.

#include "engine/Tensor.h"
#include "engine/program/Program.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace ulmora::engine::cpu {

/// In which layout operations work if they can: tests reach every kernel by it.
enum class LayoutPreference : std::uint8_t { Cheapest, Plain, ChannelsLast, Blocked };

struct ExecutableOptions {
  bool winograd = true;  ///< Winograd convolutions where they are faster; their rounding errors are a little larger
  /// Bytes of transformed weights that Winograd convolutions keep. Those beyond are transformed anew by each run, which
  /// takes less than a tenth of the convolution itself.
  std::int64_t keptWinogradBytes = std::int64_t{48} << 20;
  bool pixelRegions = true;  ///< chains of operations on single pixels at a go instead of one after another
  LayoutPreference layout = LayoutPreference::Cheapest;
};

/// Which operation a step belongs to, and what runs it.
struct StepLabel {
  std::string operation;
  std::string runner;
};

/// Runs one specialized and rewritten program. Running does not allocate (operations that run by their reference
/// evaluation excepted) and flushes subnormal numbers on every computing thread for the time of the run.
class Executable {
 public:
  /// Compiles. The program must have one input and one output. Throws Error(Run).
  explicit Executable(const program::Program& program, const ExecutableOptions& options = {});
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

  /// The steps of a run in order, as they are and as "<operation>: <what runs it>", and the time that each took in one
  /// run, in microseconds; for measurements.
  [[nodiscard]] std::vector<StepLabel> StepLabels() const;
  [[nodiscard]] std::vector<std::string> StepNames() const;
  [[nodiscard]] std::vector<double> TimeSteps();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace ulmora::engine::cpu
