#pragma once
// Runs operations and small networks compiled, in every layout, and holds them against the reference evaluation.

#include "engine/Tensor.h"
#include "engine/cpu/Executable.h"
#include "engine/program/Program.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/ProgramTesting.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace ulmora::engine::cpu {

/// Random numbers of one test, its seed printed with every failure. LUMVANE_TEST_SEED in the environment replaces it.
class Random {
 public:
  explicit Random(std::uint32_t seed);

  [[nodiscard]] std::uint32_t seed() const noexcept { return seed_; }
  [[nodiscard]] std::int64_t Int(std::int64_t low, std::int64_t high);  ///< both included
  [[nodiscard]] bool Coin() { return Int(0, 1) == 1; }
  [[nodiscard]] float Float(float low, float high);
  [[nodiscard]] Tensor Floats(const Shape& shape, float low = -1.0F, float high = 1.0F);
  /// One of them.
  template <typename T>
  [[nodiscard]] T Pick(const std::vector<T>& choices) {
    return choices[static_cast<std::size_t>(Int(0, static_cast<std::int64_t>(choices.size()) - 1))];
  }

 private:
  std::uint32_t seed_;
  std::mt19937 engine_;
};

/// An int32 vector.
[[nodiscard]] Tensor Ints(const std::vector<std::int64_t>& values);

/// Of rank 3 to 5, mostly 4, with channels that fill blocks of 8 or 16 every other time.
[[nodiscard]] Shape RandomImage(Random& random, std::int64_t largest = 9);
/// The same of rank 4.
[[nodiscard]] Shape RandomPicture(Random& random, std::int64_t largest = 9);

/// Runs `test` with a few seeds, until one fails.
template <typename Test>
void ForSeeds(const Test& test) {
  constexpr std::uint32_t kSeeds = 16;
  for (std::uint32_t seed = 1; seed <= kSeeds; ++seed) {
    Random random(seed);
    SCOPED_TRACE("seed " + std::to_string(random.seed()));
    test(random);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

/// One use of an operation: operands that arrive at run time, and those that are constants. Lists are variadic.
struct OpCase {
  std::string key;
  std::map<std::string, std::vector<Tensor>> running;  ///< floats, or bools
  std::map<std::string, Tensor> constants;
  int opset = 6;
};

/// A program of one input that holds all running operands, one behind another, and one output that holds all results in
/// the same way, as floats; with the input for it.
struct CaseProgram {
  program::Program program;
  Tensor input;
};
[[nodiscard]] CaseProgram ProgramOf(const OpCase& opCase);

/// How far results may lie apart: |a - b| <= absolute + relative * |b|, where b is the reference.
struct Tolerance {
  double relative = 2e-6;
  double absolute = 2e-6;
};

/// Runs the program compiled with each layout preference and by the reference evaluation, and expects the same.
void ExpectSame(const program::Program& program, const Tensor& input, const Tolerance& tolerance = {});
void ExpectSame(const OpCase& opCase, const Tolerance& tolerance = {});

/// Output of the compiled program.
[[nodiscard]] std::vector<float> RunCompiled(const program::Program& program, const Tensor& input,
                                             const ExecutableOptions& options = {});

/// Expects that both are as long and as close; names the first element that is not.
void ExpectClose(const std::vector<float>& actual, std::span<const float> expected, const Tolerance& tolerance,
                 const std::string& what);

/// Keys of the operations that the compiled program runs by their reference evaluation.
[[nodiscard]] std::vector<std::string> DeclinedIn(const program::Program& program);

}  // namespace ulmora::engine::cpu
