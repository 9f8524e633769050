// What holds for whole networks of layers: their interface, sequences, and what is refused.

#include "engine/program/OpRegistry.h"
#include "engine/program/import/NeuralNetworkImport.h"
#include "engine/program/import/layers/Families.h"
#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/import/layers/LayerTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program::testing {
namespace {

using ::testing::HasSubstr;

const Tensor kX = Ramp({1, 2, 3, 4});

void AddAlpha(NetworkWriter& network, const std::string& from, const std::string& to, float alpha) {
  network.Add("add_to_" + to, {from}, {to}).mutable_add()->set_alpha(alpha);
}

TEST(NeuralNetworkImport, ArraysWithoutBatchRunAsBatches) {
  NetworkWriter network({2, 3, 4}, false);
  AddAlpha(network, "x", "y", 1.0F);
  const package::ModelSource source = network.Read();
  EXPECT_EQ(source.inputs.front().shape, (Shape{1, 2, 3, 4}));
  ExpectNear(network.Run(kX), {1, 2, 3, 4}, Mapped(kX, [](double x) { return x + 1.0; }));
}

TEST(NeuralNetworkImport, VectorsAreChannels) {
  NetworkWriter network({5}, false);
  AddAlpha(network, "x", "y", 1.0F);
  const Tensor x = Ramp({1, 5, 1, 1});
  ExpectNear(network.Run(x), {1, 5, 1, 1}, {1, 2, 3, 4, 5});
}

TEST(NeuralNetworkImport, SequencesComeAndGo) {
  NetworkWriter network({2, 3, 4}, false);
  AddAlpha(network, "x", "more", 100.0F);
  network.Add("join", {"x", "more"}, {"sequence"}).mutable_concat()->set_sequenceconcat(true);
  // [2, 1, 2, 3, 4] is convolved element by element.
  auto& conv = *network.Add("conv", {"sequence"}, {"sums"}).mutable_convolution();
  conv.set_outputchannels(1);
  conv.set_kernelchannels(2);
  for (int i = 0; i < 2; ++i) conv.add_kernelsize(1);
  SetWeights(*conv.mutable_weights(), {1.0F, 1.0F});
  // [sequence, C, H, W] becomes [C, sequence, H, W], so that the sequence ends as channels.
  auto& permute = *network.Add("permute", {"sums"}, {"y"}).mutable_permute();
  for (const std::uint64_t axis : {1U, 0U, 2U, 3U}) permute.add_axis(axis);
  const Tensor y = network.Run(kX);
  std::vector<float> expected;
  for (const float more : {0.0F, 200.0F}) {
    for (std::size_t i = 0; i < 12; ++i) expected.push_back(kX.floats()[i] + kX.floats()[i + 12] + more);
  }
  ExpectNear(y, {1, 2, 3, 4}, expected);
}

TEST(NeuralNetworkImport, RepeatedSequencesAreReshapedToChannels) {
  NetworkWriter network({1, 2, 2}, false);
  network.Add("repeat", {"x"}, {"three"}).mutable_sequencerepeat()->set_nrepetitions(3);
  auto& reshape = *network.Add("reshape", {"three"}, {"y"}).mutable_reshape();
  for (const std::int64_t size : {1, 3, 2, 2}) reshape.add_targetshape(size);
  const Tensor x = Ramp({1, 1, 2, 2});
  ExpectNear(network.Run(x), {1, 3, 2, 2}, {0, 1, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3});
}

TEST(NeuralNetworkImport, OutputsThatAreInputsOrShared) {
  NetworkWriter network({1, 2, 3, 4});
  network.model().mutable_description()->mutable_output(0)->set_name("x");
  ExpectNear(network.Run(kX), {1, 2, 3, 4}, FloatsOf(kX));
  NetworkWriter copied({1, 2, 3, 4});
  copied.Add("copy", {"x"}, {"y"}).mutable_copy();
  ExpectNear(copied.Run(kX), {1, 2, 3, 4}, FloatsOf(kX));
}

TEST(NeuralNetworkImport, FlexibleDimensionsStayOpen) {
  NetworkWriter network({1, 2, 3, 4});
  auto& array = *network.model().mutable_description()->mutable_input(0)->mutable_type()->mutable_multiarraytype();
  for (const std::int64_t size : {1, 2}) {
    array.mutable_shaperange()->add_sizeranges()->set_lowerbound(static_cast<std::uint64_t>(size));
    array.mutable_shaperange()->mutable_sizeranges(array.shaperange().sizeranges_size() - 1)->set_upperbound(size);
  }
  for (int i = 0; i < 2; ++i) {
    array.mutable_shaperange()->add_sizeranges()->set_lowerbound(1);
    array.mutable_shaperange()->mutable_sizeranges(2 + i)->set_upperbound(-1);
  }
  AddAlpha(network, "x", "y", 1.0F);
  EXPECT_EQ(network.Read().network->inputs.front().type.shape, (Shape{1, 2, kUnknownDim, kUnknownDim}));
  EXPECT_EQ(network.Run(Ramp({1, 2, 7, 9})).shape(), (Shape{1, 2, 7, 9}));
}

TEST(NeuralNetworkImport, EnumeratedShapesOpenWhereTheyDiffer) {
  NetworkWriter network({2, 3, 4}, false);
  auto& array = *network.model().mutable_description()->mutable_input(0)->mutable_type()->mutable_multiarraytype();
  for (const std::int64_t width : {4, 8}) {
    coreml::ArrayShape& shape = *array.mutable_enumeratedshapes()->add_shapes();
    for (const std::int64_t size : {std::int64_t{2}, std::int64_t{3}, width}) shape.add_shape(size);
  }
  AddAlpha(network, "x", "y", 1.0F);
  EXPECT_EQ(network.Read().network->inputs.front().type.shape, (Shape{1, 2, 3, kUnknownDim}));
}

TEST(NeuralNetworkImport, ImpossibleInterfacesAreRefused) {
  NetworkWriter ranks({1, 2, 3, 4}, false);
  AddAlpha(ranks, "x", "y", 1.0F);
  EXPECT_THAT(ranks.Refusal(), HasSubstr("input 'x': has shape [1, 2, 3, 4], expected [C] or [C, H, W]"));
  NetworkWriter missing({1, 2, 3, 4});
  EXPECT_THAT(missing.Refusal(), HasSubstr("no layer makes the network's output 'y'"));
  NetworkWriter version({1, 2, 3, 4});
  AddAlpha(version, "x", "y", 1.0F);
  version.model().set_specificationversion(77);
  EXPECT_THAT(version.Refusal(), HasSubstr("specification version 77, expected 1 to 10"));
  NetworkWriter shapeless({});
  AddAlpha(shapeless, "x", "y", 1.0F);
  EXPECT_THAT(shapeless.Refusal(), HasSubstr("input 'x': has no shape"));
}

TEST(NeuralNetworkImport, BlobsMustBeDefinedBeforeTheirUse) {
  NetworkWriter network({1, 2, 3, 4});
  AddAlpha(network, "z", "y", 1.0F);
  AddAlpha(network, "x", "z", 1.0F);
  EXPECT_THAT(network.Refusal(), HasSubstr("add layer 'add_to_y': takes 'z', which is not defined before it"));
}

TEST(NeuralNetworkImport, LayersThatAreNotForImagesAreNamed) {
  const auto refusal = [](const Configure& configure) { return RefusalOfLayer(kX, configure); };
  EXPECT_THAT(refusal([](coreml::layers::Layer& layer) { layer.mutable_gru(); }),
              HasSubstr("gru layer 'tested': recurrent layers are not supported"));
  EXPECT_THAT(refusal([](coreml::layers::Layer& layer) { layer.mutable_nonmaximumsuppression(); }),
              HasSubstr("NonMaximumSuppression layer 'tested': detection of objects is not supported"));
  EXPECT_THAT(refusal([](coreml::layers::Layer& layer) { layer.mutable_custom(); }),
              HasSubstr("custom layer 'tested': what it computes is not part of the model"));
  EXPECT_THAT(refusal([](coreml::layers::Layer& layer) { layer.mutable_loopbreak(); }),
              HasSubstr("loopBreak layer 'tested': control flow is not supported"));
  EXPECT_THAT(refusal([](coreml::layers::Layer&) {}), HasSubstr("layer 'tested' is of an unknown kind"));
}

TEST(NeuralNetworkImport, NumbersOfInputsAndOutputsAreChecked) {
  EXPECT_THAT(RefusalOfLayer(kX, [](coreml::layers::Layer& layer) { layer.mutable_dot(); }),
              HasSubstr("dot layer 'tested': has 1 inputs, expected 2"));
  NetworkWriter outputs({1, 2, 3, 4});
  outputs.Add("two", {"x"}, {"y", "z"}).mutable_softmax();
  EXPECT_THAT(outputs.Refusal(), HasSubstr("softmax layer 'two': has 2 outputs, expected 1"));
}

TEST(NeuralNetworkImport, EveryLayerOfTheSchemaIsTranslatedOrMarkedAsOther) {
  const auto& kinds = *coreml::layers::Layer::descriptor()->oneof_decl(0);
  int translated = 0;
  for (int i = 0; i < kinds.field_count(); ++i) {
    const auto& field = *kinds.field(i);
    const bool isOther = field.message_type()->name() == "OtherLayer";
    const bool known = layers::FindRule(field.name()) != nullptr;
    if (known) ++translated;
    EXPECT_NE(isOther, known) << field.name();
  }
  EXPECT_GE(translated, 120);
}

}  // namespace
}  // namespace ulmora::engine::program::testing
