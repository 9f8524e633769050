#pragma once
// How a test scripts the fake Core ML, and what the fake noted. Plain C++, so that tests need no Objective-C.

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ulmora::fake_coreml {

/// How a call of the platform ends: as it should, with nothing and an error that says `text`, or with nothing at all.
struct Outcome {
  enum class Kind { Works, Error, Nothing } kind = Kind::Works;
  std::string text = {};

  static Outcome Error(const std::string& text) { return {Kind::Error, text}; }
  static Outcome Nothing() { return {Kind::Nothing}; }
};

enum class Element : long { Float16 = 0x10010, Float32 = 0x10020, Float64 = 0x10040 };

/// A multi-array: its memory is full of NaN at first, so that gaps show.
struct Tensor {
  std::vector<long> shape;
  std::vector<long> strides;
  Element element = Element::Float32;
  std::vector<unsigned char> bytes;

  Tensor() = default;
  /// Densely packed but for these gaps, all counted in elements: after each sample, each row and each plane.
  explicit Tensor(std::vector<long> size, Element type = Element::Float32, long sampleGap = 0, long rowGap = 0,
                  long planeGap = 0);

  /// The sample of a float32 tensor of rank 4, batch index 0.
  float& At(long c, long y, long x);
  [[nodiscard]] float At(long c, long y, long x) const;
};

/// What one model package does.
struct Model {
  Outcome compile;
  Outcome load;
  std::vector<std::string> inputs = {"picture"};
  std::vector<std::string> outputs = {"clean"};
  /// What a run gives: the named output's tensor, none for a value without a tensor. Empty: the result has no value of
  /// that name.
  std::function<std::optional<Tensor>(const Tensor&)> network = [](const Tensor& input) { return input; };
  Outcome predict = {};
  /// Called in place of `predict` where set: how the run on this input ends.
  std::function<Outcome(const Tensor&)> predictFor = {};
};

/// What the backend asked for.
struct Calls {
  std::vector<std::string> compiled;
  std::vector<std::string> loaded;
  std::vector<long> computeUnits;
  /// File URLs of directories end in a slash.
  std::vector<std::string> compiledUrls;
  int predictions = 0;
};

struct World {
  /// By the path that the backend was given, without a slash at its end. Others neither compile nor load.
  std::map<std::string, Model> models;
  Outcome allocate;
  Outcome provide;
  /// Gaps in the arrays that the backend allocates.
  long sampleGap = 0;
  long rowGap = 0;
  long planeGap = 0;
  Calls calls;
};

/// The state of everything, reset by assigning to it.
World& TheWorld();

/// Platform objects alive, Foundation's and the fake's, since the first call.
long LiveObjects();

}  // namespace ulmora::fake_coreml
