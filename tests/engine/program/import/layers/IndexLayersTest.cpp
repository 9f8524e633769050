// Layers that pick elements by position, write them there, or tell where they stand.

#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/import/layers/LayerTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program::testing {
namespace {

using coreml::layers::Layer;
using ::testing::HasSubstr;

const Tensor kTable = Ramp({2, 3});

TEST(GatherLayers, PositionsBelowZeroCountFromTheEnd) {
  const auto gather = [](Layer& l) { l.mutable_gather()->set_axis(1); };
  ExpectNear(RunLayer(kTable, gather, {Tensor::Floats({2}, {-1, 0})}), {2, 2}, {2, 0, 5, 3});
  const auto along = [](Layer& l) { l.mutable_gatheralongaxis()->set_axis(1); };
  ExpectNear(RunLayer(kTable, along, {Tensor::Floats({2, 1}, {-1, -3})}), {2, 1}, {2, 3});
}

TEST(GatherLayers, ListsOfPositions) {
  const auto gather = [](Layer& l) { l.mutable_gathernd(); };
  ExpectNear(RunLayer(kTable, gather, {Tensor::Floats({2, 2}, {1, 2, 0, -1})}), {2}, {5, 2});
  ExpectNear(RunLayer(kTable, gather, {Tensor::Floats({1, 1}, {1})}), {1, 3}, {3, 4, 5});
  ExpectNear(RunLayer(kTable, gather, {Tensor::Floats({2}, {1, 2})}), {1}, {5});
  EXPECT_THAT(RefusalOfLayer(kTable, gather, {Tensor::Floats({1, 3}, {0, 0, 0})}),
              HasSubstr("has positions of 3 dimensions, but its input has 2"));
}

/// A gatherND whose positions, the last element of [1, 2, 3] for example, follow from the shape of its input.
NetworkWriter LastElement(const Shape& shape) {
  NetworkWriter network(shape);
  network.Add("shape", {"x"}, {"shape"}).mutable_getshape();
  network.AddConstant("one", Tensor::Floats({1}, {1}));
  network.Add("last", {"shape", "one"}, {"last"}).mutable_subtractbroadcastable();
  network.Add("pick", {"x", "last"}, {"y"}).mutable_gathernd();
  return network;
}

TEST(GatherLayers, PositionsThatFollowFromAShapeNeedADeclaredRank) {
  NetworkWriter network = LastElement({2, 3});
  EXPECT_THAT(network.Refusal(), HasSubstr("gatherND layer 'pick': does not say which rank its output has"));
  auto& layers = *network.model().mutable_neuralnetwork()->mutable_layers();
  layers[layers.size() - 1].add_outputtensor()->set_rank(1);
  ExpectNear(network.Run(kTable), {1}, {5});
}

using coreml::layers::ScatterMode;

TEST(ScatterLayers, EveryMode) {
  const auto run = [](ScatterMode mode) {
    const auto scatter = [mode](Layer& l) { l.mutable_scatter()->set_mode(mode); };
    const Tensor index = Tensor::Floats({1}, {1});
    const Tensor update = Tensor::Floats({1}, {2});
    return FloatsOf(RunLayer(Tensor::Floats({2}, {1, 8}), scatter, {index, update}));
  };
  EXPECT_EQ(run(ScatterMode::SCATTER_UPDATE), (std::vector<float>{1, 2}));
  EXPECT_EQ(run(ScatterMode::SCATTER_ADD), (std::vector<float>{1, 10}));
  EXPECT_EQ(run(ScatterMode::SCATTER_SUB), (std::vector<float>{1, 6}));
  EXPECT_EQ(run(ScatterMode::SCATTER_MUL), (std::vector<float>{1, 16}));
  EXPECT_EQ(run(ScatterMode::SCATTER_DIV), (std::vector<float>{1, 4}));
  EXPECT_EQ(run(ScatterMode::SCATTER_MAX), (std::vector<float>{1, 8}));
  EXPECT_EQ(run(ScatterMode::SCATTER_MIN), (std::vector<float>{1, 2}));
}

TEST(ScatterLayers, SlicesElementsAndLists) {
  const auto columns = [](Layer& l) { l.mutable_scatter()->set_axis(-1); };
  ExpectNear(RunLayer(kTable, columns, {Tensor::Floats({2}, {-1, 0}), Tensor::Floats({2, 2}, {10, 11, 12, 13})}),
             {2, 3}, {11, 1, 10, 13, 4, 12});
  const auto along = [](Layer& l) { l.mutable_scatteralongaxis()->set_axis(1); };
  ExpectNear(RunLayer(kTable, along, {Tensor::Floats({2, 1}, {-1, 0}), Tensor::Floats({2, 1}, {10, 11})}), {2, 3},
             {0, 1, 10, 11, 4, 5});
  const auto list = [](Layer& l) { l.mutable_scatternd()->set_mode(ScatterMode::SCATTER_ADD); };
  const Tensor twice = Tensor::Floats({2, 2}, {1, 1, 1, 1});
  ExpectNear(RunLayer(kTable, list, {twice, Tensor::Floats({2}, {10, 20})}), {2, 3}, {0, 1, 2, 3, 34, 5});
}

/// Words 0, 1, 2 become [0, 10], [1, 11], [2, 12], plus the bias if there is one.
template <typename Parameters>
void SetWords(Parameters& parameters, bool hasBias) {
  SetWeights(*parameters.mutable_weights(), {0, 1, 2, 10, 11, 12});
  parameters.set_hasbias(hasBias);
  SetWeights(*parameters.mutable_bias(), {100, 200});
}

TEST(EmbeddingLayers, OfPlanesAndOfAnyRank) {
  const auto planes = [](bool hasBias) {
    return [hasBias](Layer& l) {
      l.mutable_embedding()->set_inputdim(3);
      l.mutable_embedding()->set_outputchannels(2);
      SetWords(*l.mutable_embedding(), hasBias);
    };
  };
  const Tensor words = Tensor::Floats({2, 1, 1, 1}, {2, 0});
  ExpectNear(RunLayer(words, planes(false)), {2, 2, 1, 1}, {2, 12, 0, 10});
  ExpectNear(RunLayer(words, planes(true)), {2, 2, 1, 1}, {102, 212, 100, 210});
  const auto any = [](Layer& l) {
    l.mutable_embeddingnd()->set_vocabsize(3);
    l.mutable_embeddingnd()->set_embeddingsize(2);
    SetWords(*l.mutable_embeddingnd(), true);
  };
  ExpectNear(RunLayer(Tensor::Floats({1, 2, 1}, {2, 1}), any), {1, 2, 2}, {102, 212, 101, 211});
  EXPECT_THAT(RefusalOfLayer(Tensor::Floats({2, 2}, {0, 0, 0, 0}), any), HasSubstr("'tested'"));
}

/// Values [y, z] of topK over the last axis, joined.
Tensor TopTwo(bool smallest, const std::vector<std::string>& inputs) {
  NetworkWriter network({2, 3});
  network.AddConstant("count", Tensor::Floats({1}, {2}));
  auto& top = *network.Add("top", inputs, {"values", "places"}).mutable_topk();
  top.set_axis(-1);
  top.set_k(inputs.size() == 2 ? 0 : 2);
  top.set_usebottomk(smallest);
  network.Add("join", {"values", "places"}, {"y"}).mutable_concatnd()->set_axis(1);
  return network.Run(Tensor::Floats({2, 3}, {7, 9, 8, 3, 1, 2}));
}

TEST(SortLayers, LargestAndSmallestWithTheirPlaces) {
  for (const std::vector<std::string>& inputs : {std::vector<std::string>{"x"}, {"x", "count"}}) {
    ExpectNear(TopTwo(false, inputs), {2, 4}, {9, 8, 1, 2, 3, 2, 0, 2});
    ExpectNear(TopTwo(true, inputs), {2, 4}, {7, 8, 0, 2, 1, 2, 1, 2});
  }
  const auto alone = [](Layer& l) { l.mutable_topk()->set_k(1); };
  ExpectNear(RunLayer(kTable, alone), {1, 3}, {3, 4, 5});
  EXPECT_THAT(RefusalOfLayer(kTable, [](Layer& l) { l.mutable_topk()->set_k(4); }), HasSubstr("k is 4"));
}

TEST(SortLayers, OrderOfElements) {
  const Tensor x = Tensor::Floats({2, 3}, {7, 9, 8, 3, 1, 2});
  const auto sort = [](bool descending) {
    return [descending](Layer& l) {
      l.mutable_argsort()->set_axis(1);
      l.mutable_argsort()->set_descending(descending);
    };
  };
  ExpectNear(RunLayer(x, sort(false)), {2, 3}, {0, 2, 1, 1, 2, 0});
  ExpectNear(RunLayer(x, sort(true)), {2, 3}, {1, 2, 0, 0, 2, 1});
}

TEST(SortLayers, MarksOfPositions) {
  const Tensor x = Tensor::Floats({2}, {2, 0});
  const auto marks = [](std::uint64_t size, std::int64_t axis) {
    return [size, axis](Layer& l) {
      auto& hot = *l.mutable_onehot();
      hot.set_onehotvectorsize(size);
      hot.set_axis(axis);
      hot.set_onvalue(0.5F);
      hot.set_offvalue(-1.0F);
    };
  };
  ExpectNear(RunLayer(x, marks(3, -1)), {2, 3}, {-1, -1, 0.5F, 0.5F, -1, -1});
  ExpectNear(RunLayer(x, marks(3, 0)), {3, 2}, {-1, 0.5F, -1, -1, 0.5F, -1});
  ExpectNear(RunLayer(x, marks(0, -1), {Tensor::Floats({1}, {3})}), {2, 3}, {-1, -1, 0.5F, 0.5F, -1, -1});
}

}  // namespace
}  // namespace ulmora::engine::program::testing
