#pragma once
// Random numbers for tests. The seed is printed, and LUMVANE_TEST_SEED brings a run back.

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

namespace ulmora::test {

class Random {
 public:
  Random() : Random(ChosenSeed()) {}
  explicit Random(std::uint64_t seed) : engine_(seed) {
    std::cout << "random seed " << seed << " (LUMVANE_TEST_SEED=" << seed << " repeats it)" << std::endl;
  }

  /// Uniform from low to high, both included.
  int Int(int low, int high) { return std::uniform_int_distribution<int>(low, high)(engine_); }

  /// Uniform from low to high.
  float Float(float low, float high) { return std::uniform_real_distribution<float>(low, high)(engine_); }
  double Double(double low, double high) { return std::uniform_real_distribution<double>(low, high)(engine_); }

  std::mt19937_64& engine() { return engine_; }

 private:
  static std::uint64_t ChosenSeed() {
    const char* given = std::getenv("LUMVANE_TEST_SEED");
    return given != nullptr ? std::stoull(given) : std::random_device()();
  }

  std::mt19937_64 engine_;
};

}  // namespace ulmora::test
