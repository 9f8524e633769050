// Damaged networks of layers: bytes cut off or flipped, and messages that are well formed but make no sense. Opening
// succeeds or throws the engine's one exception.

#include "schema/Model.pb.h"
#include "tests/engine/Damage.h"
#include "tests/engine/package/PackageTesting.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>

namespace ulmora::engine {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using package::testing::Fixtures;
using package::testing::ReadFile;
using package::testing::TemporaryFolder;

constexpr const char* kModels[] = {"layers-dncnn-version1", "layers-unet-float16", "layers-resampling",
                                   "layers-attention",      "layers-table4",       "layers-positions",
                                   "layers-sizes"};

/// Changes one field somewhere in a message to a number that tests bounds, drops it, or repeats it.
class Mutator {
 public:
  explicit Mutator(unsigned seed) : random_(seed) {}

  void Mutate(Message& message) {
    const auto& reflection = *message.GetReflection();
    std::vector<const FieldDescriptor*> fields;
    reflection.ListFields(message, &fields);
    if (fields.empty()) return;
    const FieldDescriptor& field = *fields[random_() % fields.size()];
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && random_() % 8 != 0) {
      Mutate(field.is_repeated() ? *reflection.MutableRepeatedMessage(&message, &field, Index(message, field))
                                 : *reflection.MutableMessage(&message, &field));
    } else if (random_() % 3 == 0) {
      reflection.ClearField(&message, &field);
    } else if (field.is_repeated()) {
      MutateRepeated(message, field);
    } else {
      MutateSingle(message, field);
    }
  }

  [[nodiscard]] unsigned Choose(unsigned count) { return static_cast<unsigned>(random_() % count); }

 private:
  int Index(const Message& message, const FieldDescriptor& field) {
    return static_cast<int>(random_() % static_cast<unsigned>(message.GetReflection()->FieldSize(message, &field)));
  }

  std::uint64_t Number() {
    static constexpr std::uint64_t kNumbers[] = {0,
                                                 1,
                                                 2,
                                                 3,
                                                 7,
                                                 8,
                                                 255,
                                                 65'535,
                                                 std::uint64_t{1} << 31,
                                                 std::uint64_t{1} << 62,
                                                 std::uint64_t{1} << 63,
                                                 std::numeric_limits<std::uint64_t>::max(),
                                                 static_cast<std::uint64_t>(-2)};
    return kNumbers[random_() % std::size(kNumbers)];
  }

  void MutateSingle(Message& message, const FieldDescriptor& field) {
    const auto& reflection = *message.GetReflection();
    switch (field.cpp_type()) {
      case FieldDescriptor::CPPTYPE_UINT64:
        return reflection.SetUInt64(&message, &field, Number());
      case FieldDescriptor::CPPTYPE_INT64:
        return reflection.SetInt64(&message, &field, static_cast<std::int64_t>(Number()));
      case FieldDescriptor::CPPTYPE_INT32:
        return reflection.SetInt32(&message, &field, static_cast<std::int32_t>(Number()));
      case FieldDescriptor::CPPTYPE_BOOL:
        return reflection.SetBool(&message, &field, !reflection.GetBool(message, &field));
      case FieldDescriptor::CPPTYPE_ENUM:
        return reflection.SetEnumValue(&message, &field, static_cast<int>(random_() % 12));
      case FieldDescriptor::CPPTYPE_FLOAT:
        return reflection.SetFloat(&message, &field, std::numeric_limits<float>::quiet_NaN());
      default:
        reflection.ClearField(&message, &field);
    }
  }

  void MutateRepeated(Message& message, const FieldDescriptor& field) {
    const auto& reflection = *message.GetReflection();
    const int index = Index(message, field);
    if (random_() % 4 == 0) return reflection.RemoveLast(&message, &field);
    switch (field.cpp_type()) {
      case FieldDescriptor::CPPTYPE_UINT64:
        return reflection.SetRepeatedUInt64(&message, &field, index, Number());
      case FieldDescriptor::CPPTYPE_INT64:
        return reflection.SetRepeatedInt64(&message, &field, index, static_cast<std::int64_t>(Number()));
      case FieldDescriptor::CPPTYPE_STRING:
        return reflection.SetRepeatedString(&message, &field, index, "nobody");
      default:
        reflection.RemoveLast(&message, &field);
    }
  }

  std::mt19937 random_;
};

class NeuralNetworkDamage : public ::testing::TestWithParam<const char*> {
 protected:
  bool Opens(const std::string& message) {
    return testing::OpensOrFailsInOneLine(folder_.Write("damaged.mlmodel", message));
  }

  TemporaryFolder folder_;
  const std::string message_ = ReadFile(Fixtures() / (std::string(GetParam()) + ".mlmodel"));
};

TEST_P(NeuralNetworkDamage, UndamagedModelOpens) {
  EXPECT_TRUE(Opens(message_));
}

TEST_P(NeuralNetworkDamage, TruncatedModels) {
  testing::ForTruncated(message_, 20, [&](const std::string& message) { EXPECT_FALSE(Opens(message)); });
}

TEST_P(NeuralNetworkDamage, FlippedBits) {
  std::mt19937 random(20240312);
  for (int round = 0; round < 150; ++round) {
    SCOPED_TRACE(round);
    static_cast<void>(Opens(testing::Flipped(message_, random, 1 + round % 3)));
  }
}

TEST_P(NeuralNetworkDamage, SenselessParameters) {
  Mutator mutator(20240313);
  int refused = 0;
  constexpr int kRounds = 300;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    coreml::Model model;
    ASSERT_TRUE(model.ParseFromString(message_));
    auto& layers = *model.mutable_neuralnetwork()->mutable_layers();
    for (int i = 0; i <= round % 2; ++i) {
      mutator.Mutate(*layers.Mutable(static_cast<int>(mutator.Choose(static_cast<unsigned>(layers.size())))));
    }
    if (!Opens(model.SerializeAsString())) ++refused;
  }
  // Names and hints may change without harm, sizes may not.
  EXPECT_GT(refused, kRounds / 4);
}

INSTANTIATE_TEST_SUITE_P(Models, NeuralNetworkDamage, ::testing::ValuesIn(kModels), [](const auto& test) {
  std::string name = test.param;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
});

}  // namespace
}  // namespace ulmora::engine
