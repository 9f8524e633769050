#include "engine/Model.h"
#include "tests/engine/package/PackageTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace ulmora::engine {
namespace {

using package::testing::BlockOf;
using package::testing::ExpectError;
using package::testing::Fixtures;
using package::testing::IdentityModel;
using package::testing::SetTensorType;
using package::testing::TemporaryFolder;
using package::testing::WritePackage;

Model OpenFixture(const std::string& name) {
  return Model(Fixtures() / (name + ".mlpackage"));
}

/// Fills the input with numbers that differ everywhere, none of them zero.
std::vector<float> FillRamp(std::span<float> input) {
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = 1.0F + static_cast<float>(i % 4093) / 4096.0F;
  return {input.begin(), input.end()};
}

void ExpectScaled(Model& model, const Shape& shape, float factor) {
  const std::vector<float> given = FillRamp(model.BindInput(shape));
  const OutputView output = model.Run();
  ASSERT_EQ(output.shape, shape);
  ASSERT_EQ(output.data.size(), given.size());
  for (std::size_t i = 0; i < given.size(); ++i) ASSERT_EQ(output.data[i], given[i] * factor) << i;
}

TEST(Model, DescribesItsInterface) {
  const Model model = OpenFixture("identity");
  ASSERT_EQ(model.inputs().size(), 1U);
  EXPECT_EQ(model.inputs()[0].name, "image");
  EXPECT_EQ(model.inputs()[0].shape, (Shape{1, 3, 512, 512}));
  ASSERT_EQ(model.outputs().size(), 1U);
  EXPECT_EQ(model.outputs()[0].name, "denoised");
}

TEST(Model, IdentityReturnsItsInputAtAnyShape) {
  Model model = OpenFixture("identity");
  ExpectScaled(model, {1, 3, 512, 512}, 1.0F);
  ExpectScaled(model, {1, 3, 8, 1000}, 1.0F);
  ExpectScaled(model, {1, 3, 512, 512}, 1.0F);
}

TEST(Model, GainInBothPrecisions) {
  Model single = OpenFixture("gain-half");
  ExpectScaled(single, {1, 3, 64, 48}, 0.5F);
  Model half = OpenFixture("gain-half-float16");
  ExpectScaled(half, {1, 3, 64, 48}, 0.5F);
}

TEST(Model, TheBufferStaysWhileTheShapeDoes) {
  Model model = OpenFixture("gain-half");
  const std::span<float> first = model.BindInput({1, 3, 16, 16});
  EXPECT_EQ(first.size(), std::size_t{3 * 16 * 16});
  std::fill(first.begin(), first.end(), 2.0F);
  EXPECT_EQ(model.Run().data[0], 1.0F);
  const std::span<float> again = model.BindInput({1, 3, 16, 16});
  EXPECT_EQ(again.data(), first.data());
  EXPECT_EQ(model.BindInput({1, 3, 16, 24}).size(), std::size_t{3 * 16 * 24});
}

TEST(Model, CanBeMoved) {
  Model first = OpenFixture("gain-half");
  FillRamp(first.BindInput({1, 3, 16, 16}));
  Model second = std::move(first);
  EXPECT_EQ(second.Run().data[0], 0.5F);
}

TEST(Model, Float16OutputIsDeclaredButHeldAsFloat32) {
  Model model = OpenFixture("float16-output");
  EXPECT_EQ(model.outputs()[0].element, ElementType::Float16);
  FillRamp(model.BindInput({1, 3, 16, 16}));
  const OutputView output = model.Run();
  EXPECT_EQ(output.element, ElementType::Float16);
  EXPECT_EQ(output.data[0], 0.5F);
}

TEST(Model, Float16InputKeepsFloat32Values) {
  Model model = OpenFixture("float16-interface");
  const std::span<float> input = model.BindInput({1, 3, 16, 16});
  constexpr float kBetweenHalves = 1.0F + 0x1p-20F;
  std::fill(input.begin(), input.end(), kBetweenHalves);
  EXPECT_EQ(model.Run().data[0], kBetweenHalves / 2);
}

TEST(Model, OddOutputShapesAreReportedAsTheyAre) {
  Model smaller = OpenFixture("half-size-output");
  FillRamp(smaller.BindInput({1, 3, 64, 32}));
  EXPECT_EQ(smaller.Run().shape, (Shape{1, 3, 32, 16}));
  Model flat = OpenFixture("rank-3-output");
  FillRamp(flat.BindInput({1, 3, 64, 32}));
  EXPECT_EQ(flat.Run().shape, (Shape{3, 64, 32}));
}

TEST(Model, NotANumberComesThrough) {
  Model model = OpenFixture("nan-output");
  FillRamp(model.BindInput({1, 3, 16, 16}));
  const OutputView output = model.Run();
  EXPECT_TRUE(std::all_of(output.data.begin(), output.data.end(), [](float value) { return std::isnan(value); }));
}

TEST(Model, SeveralOutputsOpenButDoNotRun) {
  Model model = OpenFixture("two-outputs");
  ASSERT_EQ(model.outputs().size(), 2U);
  EXPECT_EQ(model.outputs()[0].name, "half");
  EXPECT_EQ(model.outputs()[1].name, "quarter");
  ExpectError(Stage::Run, {"the model has 2 outputs, expected 1"}, [&] {
    static_cast<void>(model.BindInput({1, 3, 512, 512}));
  });
  ExpectError(Stage::Run, {"no input was given"}, [&] { static_cast<void>(model.Run()); });
}

TEST(Model, ShapesThatDoNotFitAreFailuresOfTheRun) {
  Model model = OpenFixture("identity-fixed-512");
  ExpectError(Stage::Run, {"no input was given"}, [&] { static_cast<void>(model.Run()); });
  for (const Shape& shape : {Shape{1, 3, 256, 256}, Shape{3, 512, 512}, Shape{1, 1, 512, 512}, Shape{}}) {
    ExpectError(Stage::Run, {"'image' has shape " + ToString(shape) + ", expected [1, 3, 512, 512]"},
                [&] { static_cast<void>(model.BindInput(shape)); });
  }
  ExpectScaled(model, {1, 3, 512, 512}, 1.0F);
}

TEST(Model, AFailedBindLeavesNothingToRun) {
  Model model = OpenFixture("identity");
  static_cast<void>(model.BindInput({1, 3, 16, 16}));
  ExpectError(Stage::Run, {"expected [1, 3, 8 to 1024, 8 to 1024]"}, [&] {
    static_cast<void>(model.BindInput({1, 4, 16, 16}));
  });
  ExpectError(Stage::Run, {"no input was given"}, [&] { static_cast<void>(model.Run()); });
}

TEST(Model, ShapesThatTheNetworkCannotTakeAreFailuresOfTheRun) {
  Model model = OpenFixture("unet-flexible-float16");
  // Two levels: the upper one of an odd size does not fit what comes back from the lower one.
  ExpectError(Stage::Run, {"concat"}, [&] { static_cast<void>(model.BindInput({1, 3, 33, 40})); });
}

TEST(Model, TimesOfStepsAreThoseOfARun) {
  Model model = OpenFixture("unet-flexible-float16");
  ExpectError(Stage::Run, {"no input was given"}, [&] { static_cast<void>(model.TimeSteps()); });
  const std::vector<float> given = FillRamp(model.BindInput({1, 3, 32, 32}));
  const OutputView run = model.Run();
  const std::vector<float> expected(run.data.begin(), run.data.end());
  const std::vector<StepTime> steps = model.TimeSteps();
  const auto isConv = [](const StepTime& step) { return step.operation.starts_with("conv '"); };
  EXPECT_GE(std::count_if(steps.begin(), steps.end(), isConv), 8);
  for (const StepTime& step : steps) {
    EXPECT_FALSE(step.runner.empty()) << step.operation;
    EXPECT_GE(step.microseconds, 0) << step.operation;
  }
  EXPECT_TRUE(std::equal(expected.begin(), expected.end(), model.Run().data.begin()));
}

TEST(Model, MultiplyAddsGrowWithTheImage) {
  const Model model = OpenFixture("unet-flexible-float16");
  const std::int64_t small = model.MultiplyAdds({1, 3, 32, 40});
  EXPECT_GT(small, 32 * 40 * 8 * 8 * 9);
  EXPECT_EQ(model.MultiplyAdds({1, 3, 64, 80}), 4 * small);
  ExpectError(Stage::Run, {"expected [1, 3, ?, ?]"}, [&] { static_cast<void>(model.MultiplyAdds({1, 4, 32, 40})); });
  const Model two = OpenFixture("two-outputs");
  EXPECT_EQ(two.MultiplyAdds({1, 3, 32, 40}), 0);
}

TEST(Model, RangesBoundWhatIsTaken) {
  Model model = OpenFixture("restormer-flexible-ios17-float32");
  EXPECT_EQ(model.inputs()[0].shape, (Shape{1, 3, 64, 64}));
  EXPECT_EQ(model.inputs()[0].ranges, (std::vector<SizeRange>{{1, 1}, {3, 3}, {16, 512}, {16, 512}}));
  // Not the default shape, and not the one before: the sizes that the network computes with are those of the tile.
  for (const Shape& shape : {Shape{1, 3, 48, 20}, Shape{1, 3, 16, 16}, Shape{1, 3, 64, 64}}) {
    FillRamp(model.BindInput(shape));
    EXPECT_EQ(model.Run().shape, shape);
  }
  for (const Shape& shape : {Shape{1, 3, 14, 64}, Shape{1, 3, 64, 514}}) {
    ExpectError(Stage::Run, {"'image' has shape " + ToString(shape) + ", expected [1, 3, 16 to 512, 16 to 512]"},
                [&] { static_cast<void>(model.BindInput(shape)); });
  }
}

TEST(Model, CompiledBundlesTakeTheShapesOfTheirPackages) {
  for (const std::string name : {"unet-flexible-float16", "group-norm-flexible-ios17-float32",
                                 "restormer-enumerated-ios16-float16", "unet-ios15-float32"}) {
    const Model package(Fixtures() / (name + ".mlpackage"));
    const Model bundle(Fixtures() / (name + ".mlmodelc"));
    EXPECT_EQ(bundle.inputs()[0].shape, package.inputs()[0].shape) << name;
    EXPECT_EQ(bundle.inputs()[0].ranges, package.inputs()[0].ranges) << name;
    EXPECT_EQ(bundle.inputs()[0].enumerated, package.inputs()[0].enumerated) << name;
  }
  Model bundle(Fixtures() / "group-norm-flexible-ios17-float32.mlmodelc");
  ExpectError(Stage::Run, {"'image' has shape [1, 3, 520, 64], expected [1, 3, 8 to 512, 8 to 512]"}, [&] {
    static_cast<void>(bundle.BindInput({1, 3, 520, 64}));
  });
}

TEST(Model, ListsOfShapesAreAllThatIsTaken) {
  Model model = OpenFixture("restormer-enumerated-ios16-float16");
  EXPECT_EQ(model.inputs()[0].shape, (Shape{1, 3, 64, 64}));
  for (const Shape& shape : {Shape{1, 3, 96, 48}, Shape{1, 3, 64, 64}, Shape{1, 3, 32, 40}}) {
    FillRamp(model.BindInput(shape));
    EXPECT_EQ(model.Run().shape, shape);
  }
  ExpectError(Stage::Run, {"'image' has shape [1, 3, 48, 96], expected [1, 3, ", "[1, 3, 32, 40]", " or [1, 3, "}, [&] {
    static_cast<void>(model.BindInput({1, 3, 48, 96}));
  });
  ExpectError(Stage::Run, {"'image' has shape [3, 64, 64], expected [1, 3, ?, ?]"}, [&] {
    static_cast<void>(model.BindInput({3, 64, 64}));
  });
}

TEST(Model, UnknownOperationIsRefusedOnOpening) {
  ExpectError(Stage::Translate, {"frobnicate 'op_3': unknown operation"}, [] { OpenFixture("unknown-operation"); });
}

TEST(Model, MissingPackageIsRefusedOnOpening) {
  ExpectError(Stage::Open, {"there is no file or directory"}, [] { OpenFixture("no-such-package"); });
}

class ModelInterface : public ::testing::Test {
 protected:
  void ExpectRefused(Stage stage, const std::vector<std::string>& parts) {
    ExpectError(stage, parts, [&] { Model(WritePackage(folder_, message_)); });
  }

  TemporaryFolder folder_;
  coreml::Model message_ = IdentityModel();
};

TEST_F(ModelInterface, DescribedFeaturesMustBeInTheProgram) {
  message_.mutable_description()->mutable_output(0)->set_name("z");
  ExpectRefused(Stage::Translate, {"the description has an output 'z' that the program lacks"});
  message_ = IdentityModel();
  message_.mutable_description()->mutable_input(0)->set_name("z");
  ExpectRefused(Stage::Translate, {"the description has an input 'z' that the program lacks"});
  message_ = IdentityModel();
  message_.mutable_description()->clear_input();
  ExpectRefused(Stage::Translate, {"the program has an input 'x' that the description lacks"});
}

TEST_F(ModelInterface, OutputsThatNobodyDescribesAreLeftOut) {
  BlockOf(message_).add_outputs("x");
  Model model(WritePackage(folder_, message_));
  ExpectScaled(model, {1, 3, 4, 4}, 1.0F);
}

TEST_F(ModelInterface, WithoutUpperBoundEverySizeIsTaken) {
  coreml::ArrayFeatureType& array =
      *message_.mutable_description()->mutable_input(0)->mutable_type()->mutable_multiarraytype();
  for (const std::int64_t size : {1, 3, 8, 8}) {
    array.add_shape(size);
    coreml::SizeRange& range = *array.mutable_shaperange()->add_sizeranges();
    range.set_lowerbound(static_cast<std::uint64_t>(size));
    range.set_upperbound(size > 3 ? -1 : size);
  }
  Model model(WritePackage(folder_, message_));
  ExpectScaled(model, {1, 3, 8, 5000}, 1.0F);
  ExpectError(Stage::Run, {"input 'x' has shape [1, 3, 7, 8], expected [1, 3, 8 or more, 8 or more]"}, [&] {
    static_cast<void>(model.BindInput({1, 3, 7, 8}));
  });
}

TEST_F(ModelInterface, AShapeWithoutFlexibilityIsTheOnlyOne) {
  coreml::ArrayFeatureType& array =
      *message_.mutable_description()->mutable_input(0)->mutable_type()->mutable_multiarraytype();
  for (const std::int64_t size : {1, 3, 8, 8}) array.add_shape(size);
  Model model(WritePackage(folder_, message_));
  ExpectScaled(model, {1, 3, 8, 8}, 1.0F);
  ExpectError(Stage::Run, {"input 'x' has shape [1, 3, 8, 9], expected [1, 3, 8, 8]"}, [&] {
    static_cast<void>(model.BindInput({1, 3, 8, 9}));
  });
}

TEST_F(ModelInterface, ImagesOpenButDoNotRun) {
  auto& image = *message_.mutable_description()->mutable_input(0)->mutable_type()->mutable_imagetype();
  image.set_width(8);
  image.set_height(8);
  image.set_colorspace(coreml::ImageFeatureType::RGB);
  Model model(WritePackage(folder_, message_));
  EXPECT_EQ(model.inputs()[0].kind, FeatureKind::Image);
  ExpectError(Stage::Run, {"input 'x' is not a multi-array"}, [&] {
    static_cast<void>(model.BindInput({1, 3, 8, 8}));
  });
}

}  // namespace
}  // namespace ulmora::engine
