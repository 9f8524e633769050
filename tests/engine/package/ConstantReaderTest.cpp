#include "engine/package/ConstantReader.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using ::testing::ElementsAre;
using testing::ExpectError;
using testing::LittleEndian;
using testing::SetTensorType;
using testing::TemporaryFolder;
using testing::WeightFileBuilder;

constexpr std::uint32_t kFloat16Number = 1;
constexpr std::uint32_t kUInt1Number = 9;

coreml::Value Blob(std::uint64_t offset, coreml::DataType type, const std::vector<std::int64_t>& dimensions,
                   const std::string& file = "@model_path/weights/weight.bin") {
  coreml::Value value;
  SetTensorType(*value.mutable_type(), type, dimensions);
  value.mutable_blobfilevalue()->set_filename(file);
  value.mutable_blobfilevalue()->set_offset(offset);
  return value;
}

class ConstantReaderTest : public ::testing::Test {
 protected:
  void WriteWeights() { folder_.Write("weights/weight.bin", builder_.bytes()); }

  void ExpectRefused(const coreml::Value& value, Stage stage, const std::vector<std::string>& parts) {
    ExpectError(stage, parts, [&] { static_cast<void>(reader_.Read(value)); });
  }

  TemporaryFolder folder_;
  WeightFileBuilder builder_;
  Bundle bundle_{folder_.path() / "model.mlmodel"};
  ConstantReader reader_{bundle_};
};

TEST_F(ConstantReaderTest, ReadsImmediatesAndRecords) {
  const std::uint64_t offset = builder_.Add(kFloat16Number, LittleEndian(0x3C00, 2) + LittleEndian(0x4000, 2));
  WriteWeights();
  const Tensor record = reader_.Read(Blob(offset, coreml::FLOAT16, {1, 2}));
  EXPECT_THAT(record.floats(), ElementsAre(1.0F, 2.0F));
  EXPECT_EQ(record.type(), (TensorType{ElementType::Float16, {1, 2}, true}));

  coreml::Value immediate;
  SetTensorType(*immediate.mutable_type(), coreml::INT32, {});
  immediate.mutable_immediatevalue()->mutable_tensor()->mutable_ints()->add_values(5);
  EXPECT_THAT(reader_.Read(immediate).ints(), ElementsAre(5));
}

TEST_F(ConstantReaderTest, ConstantsOfOneRecordShareTheirElements) {
  const std::uint64_t first = builder_.Add(kFloat16Number, "abcd");
  const std::uint64_t second = builder_.Add(kFloat16Number, "abcd");
  WriteWeights();
  const Tensor tensor = reader_.Read(Blob(first, coreml::FLOAT16, {2}));
  EXPECT_EQ(reader_.Read(Blob(first, coreml::FLOAT16, {2})).identity(), tensor.identity());
  const Tensor reshaped = reader_.Read(Blob(first, coreml::FLOAT16, {2, 1}, "@model_path/weights/./weight.bin"));
  EXPECT_EQ(reshaped.identity(), tensor.identity());
  EXPECT_EQ(reshaped.shape(), (Shape{2, 1}));
  EXPECT_NE(reader_.Read(Blob(second, coreml::FLOAT16, {2})).identity(), tensor.identity());
}

TEST_F(ConstantReaderTest, ARecordIsCheckedAgainstEachShapeThatItIsReadWith) {
  const std::uint64_t offset = builder_.Add(kFloat16Number, "abcd");
  WriteWeights();
  static_cast<void>(reader_.Read(Blob(offset, coreml::FLOAT16, {2})));
  ExpectRefused(Blob(offset, coreml::FLOAT16, {3}), Stage::Load, {"holds 4 bytes, expected 6 for float16 [3]"});
  ExpectRefused(Blob(offset, coreml::INT16, {2}), Stage::Load, {"holds float16 elements, expected int16"});
}

TEST_F(ConstantReaderTest, TheWholeOfConstantsIsBoundedBeforeMemoryIsTaken) {
  // Single bits grow to 32 times their size: a file of 2 MiB claims 64 MiB of elements.
  constexpr std::int64_t kCount = std::int64_t{1} << 24;
  const std::uint64_t offset = builder_.Add(kUInt1Number, std::string(std::size_t{kCount / 8}, '\0'));
  WriteWeights();
  ConstantReader small(bundle_, kCount * 4 - 1);
  ExpectError(Stage::Load, {"constants of more than 67108863 bytes"},
              [&] { static_cast<void>(small.Read(Blob(offset, coreml::UINT1, {kCount}))); });
}

TEST_F(ConstantReaderTest, TheBoundIsOnTheSumAndSharedRecordsCountOnce) {
  const std::uint64_t first = builder_.Add(kFloat16Number, "abcd");
  const std::uint64_t second = builder_.Add(kFloat16Number, "abcd");
  WriteWeights();
  ConstantReader small(bundle_, 15);
  EXPECT_NO_THROW(static_cast<void>(small.Read(Blob(first, coreml::FLOAT16, {2}))));
  EXPECT_NO_THROW(static_cast<void>(small.Read(Blob(first, coreml::FLOAT16, {2}))));
  ExpectError(Stage::Load, {"constants of more than 15 bytes"},
              [&] { static_cast<void>(small.Read(Blob(second, coreml::FLOAT16, {2}))); });
}

TEST_F(ConstantReaderTest, AbsurdShapesAreRefused) {
  ExpectRefused(Blob(64, coreml::FLOAT16, {std::int64_t{1} << 40}), Stage::Open,
                {"a dimension has size 1099511627776"});
  ExpectRefused(Blob(64, coreml::FLOAT16, {1 << 30, 1 << 30, 1 << 30, 4}), Stage::Translate, {"elements"});
  ExpectRefused(Blob(64, coreml::FLOAT16, std::vector<std::int64_t>(9, 1)), Stage::Open,
                {"has rank 9, expected at most 8"});
  ExpectRefused(Blob(64, coreml::FLOAT16, {2, -1}), Stage::Open, {"is a constant whose shape is not known"});
}

TEST_F(ConstantReaderTest, DamagedTypesAreRefused) {
  coreml::Value value = Blob(64, coreml::FLOAT16, {2, 2});
  value.mutable_type()->mutable_tensortype()->set_rank(3);
  ExpectRefused(value, Stage::Open, {"a tensor type of rank 3 has 2 dimensions"});
  value.mutable_type()->mutable_tensortype()->set_rank(-2);
  ExpectRefused(value, Stage::Open, {"a tensor type of rank -2 has 2 dimensions"});
  value.mutable_type()->mutable_tensortype()->set_rank(-1);
  ExpectRefused(value, Stage::Open, {"whose shape is not known"});
  value = Blob(64, coreml::FLOAT16, {2});
  value.mutable_type()->mutable_tensortype()->mutable_dimensions(0)->Clear();
  ExpectRefused(value, Stage::Open, {"neither a size"});
  for (const int number : {0, 9, 99, -1}) {
    value = Blob(64, static_cast<coreml::DataType>(number), {2});
    ExpectRefused(value, Stage::Open, {"unknown element type number " + std::to_string(number)});
  }
}

TEST_F(ConstantReaderTest, OtherKindsOfValuesAreNamed) {
  coreml::Value value;
  ExpectRefused(value, Stage::Open, {"is a value without a type, expected a tensor"});
  value.mutable_type()->mutable_listtype();
  ExpectRefused(value, Stage::Open, {"is a list, expected a tensor"});
  value.mutable_type()->mutable_dictionarytype();
  ExpectRefused(value, Stage::Open, {"is a dictionary, expected a tensor"});
  SetTensorType(*value.mutable_type(), coreml::FLOAT32, {});
  ExpectRefused(value, Stage::Open, {"has a type but no value"});
  value.mutable_immediatevalue();
  ExpectRefused(value, Stage::Open, {"has no tensor value"});
}

TEST_F(ConstantReaderTest, WeightFileTroubleIsAFailureOfLoading) {
  ExpectRefused(Blob(64, coreml::FLOAT16, {2}), Stage::Load, {"'@model_path/weights/weight.bin' is missing"});
  WriteWeights();
  ExpectRefused(Blob(64, coreml::FLOAT16, {2}), Stage::Load, {"lies outside the file"});
  ExpectRefused(Blob(64, coreml::FLOAT16, {2}, "@model_path/../x"), Stage::Load, {"does not lie within the package"});
}

}  // namespace
}  // namespace ulmora::engine::package
