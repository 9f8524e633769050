#include "engine/package/ModelMessage.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using testing::ExpectError;
using testing::IdentityModel;
using testing::TemporaryFolder;

/// A length-delimited field.
std::string Field(int number, const std::string& content) {
  const auto varint = [](std::uint64_t value) {
    std::string bytes;
    for (; value >= 0x80; value >>= 7) bytes += static_cast<char>((value & 0x7FU) | 0x80U);
    return bytes + static_cast<char>(value);
  };
  return varint(static_cast<std::uint64_t>(number) << 3 | 2U) + varint(content.size()) + content;
}

/// The message of a model whose only block holds `operations`.
std::string ModelWithOperations(const std::string& operations) {
  const std::string entry = Field(1, "CoreML5") + Field(2, operations);
  const std::string function = Field(2, "CoreML5") + Field(3, entry);
  return Field(502, Field(2, Field(1, "main") + Field(2, function)));
}

class ModelMessageTest : public ::testing::Test {
 protected:
  std::filesystem::path Write(const std::string& bytes) { return folder_.Write("model.mlmodel", bytes); }

  TemporaryFolder folder_;
};

TEST_F(ModelMessageTest, ParsesAModel) {
  const ModelMessage message(Write(IdentityModel().SerializeAsString()));
  EXPECT_EQ(message.model().specificationversion(), 6);
  EXPECT_EQ(message.model().mlprogram().functions().count("main"), 1U);
}

TEST_F(ModelMessageTest, UnknownFieldsAreSkipped) {
  const ModelMessage message(Write(IdentityModel().SerializeAsString() + Field(4711, "whatever")));
  EXPECT_TRUE(message.model().has_mlprogram());
}

TEST_F(ModelMessageTest, EmptyMissingAndForeignFiles) {
  ExpectError(Stage::Open, {"model.mlmodel' is empty"}, [&] { ModelMessage(Write("")); });
  ExpectError(Stage::Open, {"cannot open"}, [&] { ModelMessage(folder_.path() / "gone"); });
  ExpectError(Stage::Open, {"is not a model message, or a damaged one"},
              [&] { ModelMessage(Write("This is plain text and no protobuf at all.")); });
}

TEST_F(ModelMessageTest, TruncationInsideTheProgramIsNoticed) {
  const std::string whole = IdentityModel().SerializeAsString();
  ExpectError(Stage::Open, {"damaged"}, [&] { ModelMessage(Write(whole.substr(0, whole.size() - 1))); });
}

TEST_F(ModelMessageTest, ComplaintsOfTheParserStayOffStandardError) {
  coreml::Model model = IdentityModel();
  testing::BlockOf(model).add_outputs("latin \xE9");
  ::testing::internal::CaptureStderr();
  std::string bytes = model.SerializeAsString();
  static_cast<void>(::testing::internal::GetCapturedStderr());  // the writer complains as well
  ::testing::internal::CaptureStderr();
  ExpectError(Stage::Open, {"damaged"}, [&] { ModelMessage(Write(bytes)); });
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(ModelMessageTest, DeepNestingIsRefused) {
  std::string operations;
  for (int depth = 0; depth < 20'000; ++depth) operations = Field(4, Field(3, operations));
  ExpectError(Stage::Open, {"damaged"}, [&] { ModelMessage(Write(ModelWithOperations(Field(3, operations)))); });
}

TEST_F(ModelMessageTest, ManyEmptyOperationsCannotTakeMemoryAtWill) {
  constexpr int kCount = 1'000'000;
  std::string operations;
  operations.reserve(2 * kCount);
  for (int i = 0; i < kCount; ++i) operations += Field(3, "");
  const auto file = Write(ModelWithOperations(operations));
  // Two bytes each in the file, about a hundred in memory.
  ExpectError(Stage::Open, {"needs more memory than a model of"}, [&] { ModelMessage(file, 32 << 20); });
  EXPECT_NO_THROW(ModelMessage(file, 512 << 20));
}

}  // namespace
}  // namespace ulmora::engine::package
