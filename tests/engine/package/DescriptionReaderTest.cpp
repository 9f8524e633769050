#include "engine/package/DescriptionReader.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

namespace ulmora::engine::package {
namespace {

using testing::ExpectError;

class DescriptionReaderTest : public ::testing::Test {
 protected:
  coreml::ArrayFeatureType& AddInput(const std::string& name) {
    coreml::FeatureDescription& feature = *description_.add_input();
    feature.set_name(name);
    feature.mutable_type()->mutable_multiarraytype()->set_datatype(coreml::ArrayFeatureType::FLOAT32);
    return *feature.mutable_type()->mutable_multiarraytype();
  }

  void ExpectRefused(Stage stage, const std::vector<std::string>& parts) {
    ExpectError(stage, parts, [&] { static_cast<void>(ReadDescription(description_)); });
  }

  coreml::ModelDescription description_;
};

TEST_F(DescriptionReaderTest, AnEmptyDescriptionIsThatOfMain) {
  const Description description = ReadDescription(description_);
  EXPECT_EQ(description.functionName, "main");
  EXPECT_TRUE(description.inputs.empty());
  EXPECT_TRUE(description.outputs.empty());
  EXPECT_TRUE(description.metadata.empty());
}

TEST_F(DescriptionReaderTest, MultiArrays) {
  AddInput("image").add_shape(1);
  AddInput("half").set_datatype(coreml::ArrayFeatureType::FLOAT16);
  AddInput("double").set_datatype(coreml::ArrayFeatureType::DOUBLE);
  AddInput("int32").set_datatype(coreml::ArrayFeatureType::INT32);
  AddInput("int8").set_datatype(coreml::ArrayFeatureType::INT8);
  const std::vector<Feature> features = ReadDescription(description_).inputs;
  ASSERT_EQ(features.size(), 5U);
  EXPECT_EQ(features[0].name, "image");
  EXPECT_EQ(features[0].kind, FeatureKind::Tensor);
  EXPECT_EQ(features[0].element, ElementType::Float32);
  EXPECT_EQ(features[0].shape, Shape{1});
  EXPECT_EQ(features[1].element, ElementType::Float16);
  EXPECT_EQ(features[2].element, ElementType::Float64);
  EXPECT_EQ(features[3].element, ElementType::Int32);
  EXPECT_EQ(features[4].element, ElementType::Int8);
  EXPECT_TRUE(features[1].shape.empty());
}

TEST_F(DescriptionReaderTest, ListsOfShapes) {
  coreml::ArrayFeatureType& image = AddInput("image");
  for (const std::int64_t size : {64, 32}) {
    coreml::ArrayShape& shape = *image.mutable_enumeratedshapes()->add_shapes();
    shape.add_shape(1);
    shape.add_shape(size);
  }
  const Feature feature = ReadDescription(description_).inputs.at(0);
  EXPECT_EQ(feature.enumerated, (std::vector<Shape>{{1, 64}, {1, 32}}));
  EXPECT_TRUE(feature.ranges.empty());
  EXPECT_TRUE(Accepts(feature, {1, 32}));
  EXPECT_FALSE(Accepts(feature, {1, 33}));
  EXPECT_EQ(DescribeAccepted(feature), "[1, 64] or [1, 32]");
  image.mutable_enumeratedshapes()->mutable_shapes(0)->set_shape(1, 0);
  ExpectRefused(Stage::Open, {"input 'image': has a dimension of size 0"});
}

TEST_F(DescriptionReaderTest, RangesOfSizes) {
  coreml::ArrayFeatureType& image = AddInput("image");
  const auto addRange = [&image](std::uint64_t least, std::int64_t most) {
    coreml::SizeRange& range = *image.mutable_shaperange()->add_sizeranges();
    range.set_lowerbound(least);
    range.set_upperbound(most);
  };
  addRange(1, 1);
  addRange(8, 64);
  addRange(0, -1);
  const Feature feature = ReadDescription(description_).inputs.at(0);
  EXPECT_EQ(feature.ranges, (std::vector<SizeRange>{{1, 1}, {8, 64}, {0, SizeRange::kUnbounded}}));
  EXPECT_EQ(DescribeAccepted(feature), "[1, 8 to 64, 0 or more]");
  EXPECT_TRUE(Accepts(feature, {1, 64, 100000}));
  EXPECT_FALSE(Accepts(feature, {1, 65, 1}));
  EXPECT_FALSE(Accepts(feature, {2, 64, 1}));
  EXPECT_FALSE(Accepts(feature, {1, 64}));
  image.add_shape(1);
  ExpectRefused(Stage::Open, {"input 'image': has ranges for 3 dimensions, but shape [1]"});
  image.clear_shape();
  addRange(9, 8);
  ExpectRefused(Stage::Open, {"input 'image': has a dimension of size 9 to 8"});
  image.mutable_shaperange()->mutable_sizeranges(3)->set_lowerbound(UINT64_MAX);
  image.mutable_shaperange()->mutable_sizeranges(3)->set_upperbound(-1);
  ExpectRefused(Stage::Open, {"input 'image': has a dimension of size 18446744073709551615 to -1"});
}

TEST_F(DescriptionReaderTest, ImagesAndOtherKinds) {
  coreml::FeatureDescription& image = *description_.add_output();
  image.set_name("picture");
  image.mutable_type()->mutable_imagetype()->set_width(20);
  image.mutable_type()->mutable_imagetype()->set_height(10);
  image.mutable_type()->mutable_imagetype()->set_colorspace(coreml::ImageFeatureType::RGB);
  description_.add_output()->set_name("label");
  const std::vector<Feature> features = ReadDescription(description_).outputs;
  EXPECT_EQ(features[0].kind, FeatureKind::Image);
  EXPECT_EQ(features[0].shape, (Shape{1, 3, 10, 20}));
  EXPECT_EQ(features[1].kind, FeatureKind::Other);
}

TEST_F(DescriptionReaderTest, SeveralFunctions) {
  description_.set_defaultfunctionname("second");
  description_.add_functions()->set_name("first");
  coreml::FunctionDescription& second = *description_.add_functions();
  second.set_name("second");
  second.add_input()->set_name("in");
  second.add_output()->set_name("out");
  const Description description = ReadDescription(description_);
  EXPECT_EQ(description.functionName, "second");
  EXPECT_EQ(description.inputs.at(0).name, "in");
  EXPECT_EQ(description.outputs.at(0).name, "out");
  description_.set_defaultfunctionname("third");
  ExpectRefused(Stage::Translate, {"the description has no function 'third'"});
}

TEST_F(DescriptionReaderTest, MetadataIsCollected) {
  coreml::Metadata& metadata = *description_.mutable_metadata();
  metadata.set_author("somebody");
  metadata.set_versionstring("7");
  (*metadata.mutable_userdefined())["key"] = "value";
  const std::map<std::string, std::string> expected = {
      {"author", "somebody"}, {"versionString", "7"}, {"key", "value"}};
  EXPECT_EQ(ReadDescription(description_).metadata, expected);
}

TEST_F(DescriptionReaderTest, DamagedFeaturesAreRefused) {
  AddInput("x").set_datatype(coreml::ArrayFeatureType::INVALID_ARRAY_DATA_TYPE);
  ExpectRefused(Stage::Open, {"input 'x': has the unknown element type number 0"});
  description_.Clear();
  AddInput("");
  ExpectRefused(Stage::Open, {"input has no name"});
  description_.Clear();
  AddInput("x");
  AddInput("x");
  ExpectRefused(Stage::Open, {"input 'x' is described twice"});
  for (const std::int64_t size : {std::int64_t{0}, std::int64_t{-5}, std::int64_t{1} << 40}) {
    description_.Clear();
    AddInput("x").add_shape(size);
    ExpectRefused(Stage::Open, {"input 'x': has a dimension of size " + std::to_string(size)});
  }
  description_.Clear();
  coreml::ArrayFeatureType& deep = AddInput("x");
  for (int i = 0; i < 9; ++i) deep.add_shape(1);
  ExpectRefused(Stage::Open, {"input 'x': has rank 9, expected at most 8"});
}

}  // namespace
}  // namespace ulmora::engine::package
