// Packages are untrusted: whatever operands an operation is given, it refuses them with an Error or computes what its
// shape rule promised. Meant above all for the sanitizers.

#include "engine/Error.h"
#include "engine/program/OpCall.h"
#include "engine/program/OpRegistry.h"
#include "tests/support/Random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <limits>
#include <string>
#include <vector>

namespace ulmora::engine::program {
namespace {

constexpr int kCallsPerOperation = 600;
constexpr std::int64_t kMaxElements = 20000;

/// Draws operands: most of them plausible for their parameter, some absurd.
class OperandSource {
 public:
  explicit OperandSource(test::Random& random) : random_(random) {}

  /// Most operands of one call fit one rank.
  void NextCall() { rank_ = random_.Int(1, 5); }

  Tensor Draw(std::string_view parameter) {
    const bool fits = !OneIn(6);
    if (fits && IsVector(parameter)) return Vector();
    if (fits && parameter.ends_with("mask")) return Flags(rank_);
    if (fits && (parameter.ends_with("mode") || parameter.ends_with("type") || parameter == "equation")) {
      return Tensor::Text(Pick(kTexts));
    }
    switch (random_.Int(0, 8)) {
      case 0:
        return Flags(random_.Int(0, 5));
      case 1:
        return Tensor::Text(Pick(kTexts));
      case 2:
        return Tensor::Bool(OneIn(2));
      case 3:
        return Tensor::Float(AnyFloat());
      case 4:
        return Vector();
      case 5:
        return Field();
      default:
        return Tensor::Int(AnyInt());
    }
  }

  Tensor Vector() {
    const std::array<int, 5> lengths = {rank_, 2 * rank_, std::max(1, rank_ - 2), std::max(1, 2 * (rank_ - 2)),
                                        Int(0, 8)};
    std::vector<std::int32_t> values(static_cast<std::size_t>(Pick(lengths)));
    for (std::int32_t& value : values) value = AnyInt();
    return Tensor::IntVector(std::move(values));
  }

  Tensor Flags(int length) {
    std::vector<std::uint8_t> flags(static_cast<std::size_t>(length));
    for (std::uint8_t& flag : flags) flag = static_cast<std::uint8_t>(random_.Int(0, 1));
    return Tensor::Bools({length}, std::move(flags));
  }

  /// A float tensor of up to five small dimensions, like most data.
  Tensor Field() {
    Shape shape;
    const int rank = OneIn(4) ? random_.Int(0, 5) : rank_;
    for (int i = 0; i < rank; ++i) shape.push_back(OneIn(40) ? 0 : random_.Int(1, 4));
    std::vector<float> values(static_cast<std::size_t>(ElementCount(shape)));
    for (float& value : values) value = AnyFloat();
    return Tensor::Floats(shape, std::move(values));
  }

  static bool IsVector(std::string_view parameter) { return std::ranges::count(kVectors, parameter) > 0; }
  bool OneIn(int n) { return random_.Int(1, n) == 1; }
  int Int(int low, int high) { return random_.Int(low, high); }

 private:
  static constexpr std::array<const char*, 27> kTexts = {"valid",
                                                         "same",
                                                         "same_lower",
                                                         "custom",
                                                         "constant",
                                                         "reflect",
                                                         "replicate",
                                                         "DEFAULT",
                                                         "ALIGN_CORNERS",
                                                         "LINEAR",
                                                         "NEAREST_NEIGHBOR",
                                                         "fp32",
                                                         "int32",
                                                         "uint8",
                                                         "EXACT",
                                                         "chw,whr->chr",
                                                         "nchw,nwhu->nchu",
                                                         "update",
                                                         "bilinear",
                                                         "nearest",
                                                         "border",
                                                         "unnormalized",
                                                         "normalized_zero_to_one",
                                                         "int8",
                                                         "CENTER_SIZE_WIDTH_FIRST",
                                                         "",
                                                         "\xff,->"};
  static constexpr std::array<std::int32_t, 8> kInts = {INT32_MIN, INT32_MIN + 1, -100,      100,
                                                        65536,     INT32_MAX - 1, INT32_MAX, -7};
  static constexpr std::array<float, 8> kFloats = {0.0F,
                                                   -0.0F,
                                                   1e-45F,
                                                   1e38F,
                                                   -3e38F,
                                                   std::numeric_limits<float>::infinity(),
                                                   -std::numeric_limits<float>::infinity(),
                                                   std::numeric_limits<float>::quiet_NaN()};

  /// Parameters that are lists of integers.
  static constexpr std::array<std::string_view, 20> kVectors = {
      "axes", "begin", "begins",  "block_shape",  "crop_height",  "crop_width", "dilations",
      "end",  "ends",  "indices", "kernel_sizes", "output_shape", "pad",        "perm",
      "reps", "shape", "size",    "split_sizes",  "stride",       "strides"};

  template <typename T, std::size_t kCount>
  T Pick(const std::array<T, kCount>& from) {
    return from[static_cast<std::size_t>(random_.Int(0, static_cast<int>(kCount) - 1))];
  }
  std::int32_t AnyInt() { return OneIn(20) ? Pick(kInts) : random_.Int(OneIn(5) ? -2 : 0, 4); }
  float AnyFloat() { return OneIn(12) ? Pick(kFloats) : random_.Float(-3.0F, 3.0F); }

  test::Random& random_;
  int rank_ = 1;
};

/// False for results that programs refuse for their size, or that would take the test too long.
bool AreAffordable(const std::vector<TensorType>& types) {
  try {
    return std::ranges::all_of(types, [](const TensorType& t) { return ElementCount(t.shape) <= kMaxElements; });
  } catch (const Error&) {
    return false;
  }
}

/// One call with drawn operands; true if the shape rule accepted them.
bool TryCall(const OpDefinition& definition, OperandSource& source) {
  source.NextCall();
  std::deque<Tensor> tensors;  // operands point into it
  std::vector<std::vector<OpCall::Operand>> operands;
  for (const Parameter& parameter : definition.parameters) {
    std::vector<OpCall::Operand>& group = operands.emplace_back();
    int count = parameter.presence == Presence::Optional && source.OneIn(2) ? 0 : 1;
    if (parameter.presence == Presence::Variadic) count = source.Int(1, 3);
    for (int i = 0; i < count; ++i) {
      const bool isData = !parameter.mustBeConstant && !source.OneIn(4) && !OperandSource::IsVector(parameter.name);
      const bool repeats = i > 0 && !source.OneIn(3);
      const Tensor* tensor =
          repeats ? group.front().value : &tensors.emplace_back(isData ? source.Field() : source.Draw(parameter.name));
      group.push_back({tensor->type(), tensor});
    }
  }
  try {
    const OpCall call(definition, "hostile", source.Int(5, 9), std::move(operands));
    const std::vector<TensorType> types = definition.infer(call);
    if (!AreAffordable(types)) return true;
    const std::vector<Tensor> results = definition.evaluate(call);
    EXPECT_EQ(results.size(), types.size());
    for (std::size_t i = 0; i < results.size() && i < types.size(); ++i) EXPECT_EQ(results[i].type(), types[i]);
    return true;
  } catch (const Error& error) {
    EXPECT_EQ(error.stage(), Stage::Translate) << error.what();
    EXPECT_EQ(std::string_view(error.what()).find(std::string(definition.key) + " 'hostile': "), 0U) << error.what();
    return false;
  }
}

TEST(HostileCalls, AreRefusedOrComputed) {
  test::Random random;
  OperandSource source(random);
  for (const OpDefinition& definition : AllOps()) {
    SCOPED_TRACE(definition.key);
    int accepted = 0;
    for (int i = 0; i < kCallsPerOperation; ++i) accepted += TryCall(definition, source) ? 1 : 0;
    RecordProperty(std::string(definition.key), accepted);
    if (HasFailure()) break;
  }
}

}  // namespace
}  // namespace ulmora::engine::program
