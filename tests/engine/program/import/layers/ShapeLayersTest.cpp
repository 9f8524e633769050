// Layers that change shape, order or choice of elements, and reductions.

#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/import/layers/LayerTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <type_traits>

namespace ulmora::engine::program::testing {
namespace {

using coreml::layers::Layer;

/// [1, 2, 2, 3] of 0 to 11.
const Tensor kX = Ramp({1, 2, 2, 3});

template <typename Field, typename Values>
void Fill(Field& field, const Values& values) {
  for (const auto value : values) field.Add(value);
}

using Ids = std::vector<std::int64_t>;
using Sizes = std::vector<std::uint64_t>;

TEST(ReshapeLayer, ChannelsFirstAndLast) {
  const auto reshape = [](coreml::layers::Reshape::ReshapeOrder order) {
    return [order](Layer& layer) {
      Fill(*layer.mutable_reshape()->mutable_targetshape(), Ids{3, 2, 2});
      layer.mutable_reshape()->set_mode(order);
    };
  };
  ExpectNear(RunLayer(kX, reshape(coreml::layers::Reshape::CHANNEL_FIRST)), {1, 3, 2, 2}, FloatsOf(kX));
  // In the order [H, W, C]: 0 6 1 7 2 8 3 9 4 10 5 11, read as [2, 2, 3].
  ExpectNear(RunLayer(kX, reshape(coreml::layers::Reshape::CHANNEL_LAST)), {1, 3, 2, 2},
             {0, 7, 3, 10, 6, 2, 9, 5, 1, 8, 4, 11});
}

TEST(ReshapeLayer, ImpossibleShapesAreRefused) {
  const auto refusal = [](const Ids& shape) {
    return RefusalOfLayer(kX, [&](Layer& layer) { Fill(*layer.mutable_reshape()->mutable_targetshape(), shape); });
  };
  EXPECT_THAT(refusal({2, 6}), ::testing::HasSubstr("targetShape has 2 entries, expected 3 or 4"));
  EXPECT_THAT(refusal({2, 3, -1}), ::testing::HasSubstr("targetShape has an entry below 1"));
  EXPECT_THAT(refusal({5, 1, 1}), ::testing::HasSubstr("'tested'"));
}

TEST(ReshapeLayer, SequencesKeepTheirBatches) {
  const auto reshape = [](coreml::layers::Reshape::ReshapeOrder order) {
    return [order](Layer& layer) {
      Fill(*layer.mutable_reshape()->mutable_targetshape(), Ids{1, 4, 2, 1});
      layer.mutable_reshape()->set_mode(order);
    };
  };
  // Two elements in sequence, two batches, of two channels and two rows each.
  const Tensor x = Ramp({2, 2, 2, 2, 1});
  ExpectNear(RunLayer(x, reshape(coreml::layers::Reshape::CHANNEL_FIRST)), {1, 2, 4, 2, 1},
             {0, 1, 2, 3, 8, 9, 10, 11, 4, 5, 6, 7, 12, 13, 14, 15});
  // In the order [sequence, H, W, C]: 0 2 1 3 8 10 9 11, and the same plus 4; each row of the result takes four.
  ExpectNear(RunLayer(x, reshape(coreml::layers::Reshape::CHANNEL_LAST)), {1, 2, 4, 2, 1},
             {0, 8, 2, 10, 1, 9, 3, 11, 4, 12, 6, 14, 5, 13, 7, 15});
}

TEST(FlattenLayers, OfPlanesAndOfAnyAxes) {
  ExpectNear(RunLayer(kX, [](Layer& l) { l.mutable_flatten(); }), {1, 12, 1, 1}, FloatsOf(kX));
  const auto last = [](Layer& l) { l.mutable_flatten()->set_mode(coreml::layers::Flatten::CHANNEL_LAST); };
  ExpectNear(RunLayer(kX, last), {1, 12, 1, 1}, {0, 6, 1, 7, 2, 8, 3, 9, 4, 10, 5, 11});
  ExpectNear(RunLayer(kX, [](Layer& l) { l.mutable_flattento2d()->set_axis(-2); }), {2, 6}, FloatsOf(kX));
}

TEST(PermuteLayers, OfPlanesAndOfAnyAxes) {
  const std::vector<float> expected = {0, 3, 1, 4, 2, 5, 6, 9, 7, 10, 8, 11};
  const auto permute = [](Layer& l) { Fill(*l.mutable_permute()->mutable_axis(), Sizes{0, 1, 3, 2}); };
  ExpectNear(RunLayer(kX, permute), {1, 2, 3, 2}, expected);
  const auto transpose = [](Layer& l) { Fill(*l.mutable_transpose()->mutable_axes(), Sizes{0, 1, 3, 2}); };
  ExpectNear(RunLayer(kX, transpose), {1, 2, 3, 2}, expected);
  EXPECT_THAT(RefusalOfLayer(kX,
                             [](Layer& l) {
                               Fill(*l.mutable_permute()->mutable_axis(), Sizes{0, 1, 3, 3});
                             }),
              ::testing::HasSubstr("axis is no permutation of 0 to 3"));
}

TEST(ReshapeLayers, OfNewerNetworks) {
  const auto expect = [](const Configure& set, const Shape& shape, const std::vector<Tensor>& others = {}) {
    ExpectNear(RunLayer(kX, set, others), shape, FloatsOf(kX));
  };
  expect([](Layer& l) { Fill(*l.mutable_reshapestatic()->mutable_targetshape(), Ids{4, -1}); }, {4, 3});
  expect(
      [](Layer& l) {
        Fill(*l.mutable_rankpreservingreshape()->mutable_targetshape(), Ids{0, 4, -1, 0});
      },
      {1, 4, 1, 3});
  expect([](Layer& l) { l.mutable_reshapelike(); }, {6, 2}, {Ramp({6, 2})});
  expect([](Layer& l) { Fill(*l.mutable_squeeze()->mutable_axes(), Ids{0}); }, {2, 2, 3});
  expect([](Layer& l) { Fill(*l.mutable_expanddims()->mutable_axes(), Ids{0, -1}); }, {1, 1, 2, 2, 3, 1});
  expect(
      [](Layer& l) {
        l.mutable_reshapedynamic();
        l.add_outputtensor()->set_rank(3);
      },
      {3, 2, 2}, {Tensor::Floats({3}, {3, 2, 2})});
  expect(
      [](Layer& l) {
        l.mutable_squeeze()->set_squeezeall(true);
        l.add_outputtensor()->set_rank(3);
      },
      {2, 2, 3});
  EXPECT_THAT(RefusalOfLayer(kX, [](Layer& l) { l.mutable_squeeze()->set_squeezeall(true); }),
              ::testing::HasSubstr("does not say which rank its output has"));
}

TEST(JoinLayers, ConcatAndStack) {
  const Tensor b = Tensor::Floats({1, 1, 2, 3}, {20, 21, 22, 23, 24, 25});
  std::vector<float> joined = FloatsOf(kX);
  joined.insert(joined.end(), b.floats().begin(), b.floats().end());
  ExpectNear(RunLayer(kX, [](Layer& l) { l.mutable_concat(); }, {b}), {1, 3, 2, 3}, joined);
  ExpectNear(RunLayer(kX, [](Layer& l) { l.mutable_concatnd()->set_axis(1); }, {b}), {1, 3, 2, 3}, joined);
  const Tensor pair = Tensor::Floats({2}, {1, 2});
  const Tensor other = Tensor::Floats({2}, {3, 4});
  ExpectNear(RunLayer(pair, [](Layer& l) { l.mutable_stack()->set_axis(1); }, {other}), {2, 2}, {1, 3, 2, 4});
  const auto interleaved = [](Layer& l) { l.mutable_concatnd()->set_interleave(true); };
  ExpectNear(RunLayer(pair, interleaved, {other}), {4}, {1, 3, 2, 4});
}

TEST(JoinLayers, SplitIntoChannelsAndTile) {
  NetworkWriter network(kX.shape());
  network.Add("split", {"x"}, {"first", "second"}).mutable_split()->set_noutputs(2);
  network.Add("join", {"second", "first"}, {"y"}).mutable_concat();
  ExpectNear(network.Run(kX), kX.shape(), {6, 7, 8, 9, 10, 11, 0, 1, 2, 3, 4, 5});
  NetworkWriter uneven(kX.shape());
  auto& split = *uneven.Add("split", {"x"}, {"first", "y"}).mutable_splitnd();
  split.set_axis(-1);
  Fill(*split.mutable_splitsizes(), Sizes{1, 2});
  ExpectNear(uneven.Run(kX), {1, 2, 2, 2}, {1, 2, 4, 5, 7, 8, 10, 11});
  const auto tile = [](Layer& l) { Fill(*l.mutable_tile()->mutable_reps(), Sizes{2, 2}); };
  ExpectNear(RunLayer(Tensor::Floats({1, 2}, {1, 2}), tile), {2, 4}, {1, 2, 1, 2, 1, 2, 1, 2});
}

TEST(SliceLayer, EndOfMinusOneLeavesTheLastOut) {
  const auto slice = [](coreml::layers::Slice::SliceAxis axis, std::int64_t start, std::int64_t end,
                        std::uint64_t stride) {
    return RunLayer(kX, [=](Layer& layer) {
      layer.mutable_slice()->set_axis(axis);
      layer.mutable_slice()->set_startindex(start);
      layer.mutable_slice()->set_endindex(end);
      layer.mutable_slice()->set_stride(stride);
    });
  };
  using coreml::layers::Slice;
  ExpectNear(slice(Slice::WIDTH_AXIS, 0, -1, 1), {1, 2, 2, 2}, {0, 1, 3, 4, 6, 7, 9, 10});
  ExpectNear(slice(Slice::WIDTH_AXIS, 0, 3, 2), {1, 2, 2, 2}, {0, 2, 3, 5, 6, 8, 9, 11});
  ExpectNear(slice(Slice::HEIGHT_AXIS, 1, 2, 1), {1, 2, 1, 3}, {3, 4, 5, 9, 10, 11});
  ExpectNear(slice(Slice::CHANNEL_AXIS, -1, 2, 1), {1, 1, 2, 3}, {6, 7, 8, 9, 10, 11});
}

TEST(SliceLayers, OfAnyAxes) {
  const auto fixed = [](Layer& layer) {
    auto& slice = *layer.mutable_slicestatic();
    Fill(*slice.mutable_beginids(), Ids{0, 1, 0, 0});
    Fill(*slice.mutable_endids(), Ids{0, 2, 0, -1});
    Fill(*slice.mutable_strides(), Ids{1, 1, 1, 1});
    Fill(*slice.mutable_beginmasks(), std::vector<bool>{true, false, true, true});
    Fill(*slice.mutable_endmasks(), std::vector<bool>{true, false, true, false});
    Fill(*slice.mutable_squeezemasks(), std::vector<bool>{false, true, false, false});
  };
  ExpectNear(RunLayer(kX, fixed), {1, 2, 2}, {6, 7, 9, 10});
  const auto dynamic = [](Layer& layer) { layer.mutable_slicedynamic(); };
  ExpectNear(RunLayer(Ramp({2, 3}), dynamic, {Tensor::Floats({2}, {0, 1}), Tensor::Floats({2}, {2, 3})}), {2, 2},
             {1, 2, 4, 5});
  const auto bySize = [](Layer& layer) {
    layer.mutable_slicebysize()->set_axis(1);
    layer.mutable_slicebysize()->set_size(2);
  };
  ExpectNear(RunLayer(Ramp({2, 3}), bySize, {Tensor::Floats({1}, {1})}), {2, 2}, {1, 2, 4, 5});
}

TEST(SliceLayers, GatherReverseAndBands) {
  const Tensor x = Ramp({2, 3});
  const auto gather = [](Layer& l) { l.mutable_gather()->set_axis(1); };
  ExpectNear(RunLayer(x, gather, {Tensor::Floats({2}, {2, 0})}), {2, 2}, {2, 0, 5, 3});
  const auto along = [](Layer& l) { l.mutable_gatheralongaxis()->set_axis(1); };
  ExpectNear(RunLayer(x, along, {Tensor::Floats({2, 1}, {2, 0})}), {2, 1}, {2, 3});
  const auto reverse = [](Layer& l) {
    Fill(*l.mutable_reverse()->mutable_reversedim(), std::vector<bool>{false, true});
  };
  ExpectNear(RunLayer(x, reverse), {2, 3}, {2, 1, 0, 5, 4, 3});
  const auto band = [](Layer& l) {
    l.mutable_matrixbandpart()->set_numlower(0);
    l.mutable_matrixbandpart()->set_numupper(1);
  };
  ExpectNear(RunLayer(x, band), {2, 3}, {0, 1, 0, 0, 4, 5});
}

TEST(TriangleLayers, AnyDiagonal) {
  // Infinity must not become NaN where it is left out.
  const float big = std::numeric_limits<float>::infinity();
  const Tensor x = Tensor::Floats({3, 3}, {1, 2, big, 4, 5, 6, big, 8, 9});
  const auto lower = [&](std::int64_t k) {
    return FloatsOf(RunLayer(x, [k](Layer& l) { l.mutable_lowertriangular()->set_k(k); }));
  };
  EXPECT_EQ(lower(1), (std::vector<float>{1, 2, 0, 4, 5, 6, big, 8, 9}));
  EXPECT_EQ(lower(0), (std::vector<float>{1, 0, 0, 4, 5, 0, big, 8, 9}));
  EXPECT_EQ(lower(-1), (std::vector<float>{0, 0, 0, 4, 0, 0, big, 8, 0}));
  EXPECT_EQ(lower(-2), (std::vector<float>{0, 0, 0, 0, 0, 0, big, 0, 0}));
  const auto upper = [&](std::int64_t k) {
    return FloatsOf(RunLayer(x, [k](Layer& l) { l.mutable_uppertriangular()->set_k(k); }));
  };
  EXPECT_EQ(upper(-1), (std::vector<float>{1, 2, big, 4, 5, 6, 0, 8, 9}));
  EXPECT_EQ(upper(0), (std::vector<float>{1, 2, big, 0, 5, 6, 0, 0, 9}));
  EXPECT_EQ(upper(1), (std::vector<float>{0, 2, big, 0, 0, 6, 0, 0, 0}));
  EXPECT_EQ(upper(2), (std::vector<float>{0, 0, big, 0, 0, 0, 0, 0, 0}));
}

TEST(SliceDynamicLayer, EveryNumberOfInputs) {
  // x[1, :, ::2] of [2, 2, 3], whose lists are inputs from the second on, and parameters after those.
  const Tensor x = Ramp({2, 2, 3});
  const std::vector<std::vector<float>> lists = {{1, 9, 0}, {9, 9, 9}, {1, 1, 2}, {0, 1, 0}, {0, 0, 1}, {1, 0, 0}};
  for (std::size_t given = 1; given <= lists.size(); ++given) {
    std::vector<Tensor> others;
    for (std::size_t i = 0; i < given; ++i) others.push_back(Tensor::Floats({3}, lists[i]));
    // The tools fill the layer's own lists up to five entries.
    const auto fill = [&](std::size_t list, auto& field) {
      using Entry = typename std::remove_reference_t<decltype(field)>::value_type;
      for (const float entry : lists[list]) field.Add(static_cast<Entry>(entry));
      for (int i = 0; i < 2; ++i) field.Add(Entry{1});
    };
    const auto configure = [&](Layer& layer) {
      auto& slice = *layer.mutable_slicedynamic();
      if (given < 2) fill(1, *slice.mutable_endids());
      if (given < 3) fill(2, *slice.mutable_strides());
      if (given < 4) fill(3, *slice.mutable_beginmasks());
      if (given < 5) fill(4, *slice.mutable_endmasks());
      if (given < 6) fill(5, *slice.mutable_squeezemasks());
    };
    SCOPED_TRACE(given);
    ExpectNear(RunLayer(x, configure, others), {2, 2}, {6, 8, 9, 11});
  }
}

TEST(SliceDynamicLayer, ListsMustReachToTheLastDimension) {
  const auto configure = [](Layer& layer) { Fill(*layer.mutable_slicedynamic()->mutable_endids(), Ids{1}); };
  EXPECT_THAT(RefusalOfLayer(Ramp({2, 3}), configure, {Tensor::Floats({2}, {0, 0})}),
              ::testing::HasSubstr("endIds has 1 entries, expected 2"));
}

TEST(WindowLayers, SlidingWindowsAndReversedSequences) {
  const auto windows = [](Layer& layer) {
    layer.mutable_slidingwindows()->set_axis(-1);
    layer.mutable_slidingwindows()->set_windowsize(2);
    layer.mutable_slidingwindows()->set_step(2);
  };
  ExpectNear(RunLayer(Ramp({1, 5}), windows), {1, 2, 2}, {0, 1, 2, 3});
  const auto reversed = [](Layer& layer) {
    layer.mutable_reverseseq()->set_batchaxis(0);
    layer.mutable_reverseseq()->set_sequenceaxis(-1);
  };
  ExpectNear(RunLayer(Ramp({2, 3}), reversed, {Tensor::Floats({2}, {2, 3})}), {2, 3}, {1, 0, 2, 5, 4, 3});
}

TEST(ConstantLayers, LoadedFilledAndCounted) {
  NetworkWriter network({2, 2, 3}, false);
  auto& load = *network.Add("load", {}, {"constant"}).mutable_loadconstant();
  Fill(*load.mutable_shape(), Sizes{2, 1, 1});
  SetWeights(*load.mutable_data(), {10, 20});
  network.Add("add", {"x", "constant"}, {"y"}).mutable_add();
  ExpectNear(network.Run(kX), kX.shape(), {10, 11, 12, 13, 14, 15, 26, 27, 28, 29, 30, 31});
  ExpectNear(RunLayer(kX, [](Layer& l) { l.mutable_getshape(); }), {4}, {1, 2, 2, 3});
  ExpectNear(RunLayer(kX, [](Layer& l) { l.mutable_filllike()->set_value(2); }), kX.shape(), std::vector<float>(12, 2));
  NetworkWriter range({3});
  auto& numbers = *range.Add("range", {}, {"numbers"}).mutable_rangestatic();
  numbers.set_startvalue(1);
  numbers.set_endvalue(7);
  numbers.set_stepsizevalue(2);
  range.Add("add", {"x", "numbers"}, {"y"}).mutable_addbroadcastable();
  ExpectNear(range.Run(Ramp({3})), {3}, {1, 4, 7});
}

TEST(ConstantLayers, Broadcasts) {
  const Tensor x = Tensor::Floats({2, 1}, {1, 2});
  const std::vector<float> expected = {1, 1, 1, 2, 2, 2};
  ExpectNear(RunLayer(x, [](Layer& l) { l.mutable_broadcasttolike(); }, {Ramp({2, 3})}), {2, 3}, expected);
  const auto fixed = [](Layer& l) { Fill(*l.mutable_broadcasttostatic()->mutable_targetshape(), Sizes{2, 3}); };
  ExpectNear(RunLayer(x, fixed), {2, 3}, expected);
  const auto dynamic = [](Layer& l) {
    l.mutable_broadcasttodynamic();
    l.add_outputtensor()->set_rank(2);
  };
  ExpectNear(RunLayer(x, dynamic, {Tensor::Floats({2}, {2, 3})}), {2, 3}, expected);
}

TEST(ConstantLayers, ShapesComputedFromTheInput) {
  // [1, 2, 2, 3] to [2, 2, 3] by way of the input's own shape.
  NetworkWriter network(kX.shape());
  network.Add("shape", {"x"}, {"shape"}).mutable_getshape();
  auto& tail = *network.Add("tail", {"shape"}, {"planes"}).mutable_slicestatic();
  Fill(*tail.mutable_beginids(), Ids{1});
  Fill(*tail.mutable_endids(), Ids{4});
  Layer& reshape = network.Add("reshape", {"x", "planes"}, {"y"});
  reshape.mutable_reshapedynamic();
  reshape.add_outputtensor()->set_rank(3);
  ExpectNear(network.Run(kX), {2, 2, 3}, FloatsOf(kX));
}

TEST(ReduceLayer, ModesAndAxes) {
  using coreml::layers::Reduce;
  const Tensor x = Tensor::Floats({1, 2, 1, 2}, {1, 2, 3, 4});
  const auto run = [&](Reduce::ReduceOperation mode, Reduce::ReduceAxis axis) {
    return RunLayer(x, [=](Layer& layer) {
      layer.mutable_reduce()->set_mode(mode);
      layer.mutable_reduce()->set_axis(axis);
    });
  };
  ExpectNear(run(Reduce::SUM, Reduce::CHW), {1, 1, 1, 1}, {10});
  ExpectNear(run(Reduce::AVG, Reduce::HW), {1, 2, 1, 1}, {1.5F, 3.5F});
  ExpectNear(run(Reduce::PROD, Reduce::C), {1, 1, 1, 2}, {3, 8});
  ExpectNear(run(Reduce::LOGSUM, Reduce::W), {1, 2, 1, 1}, {std::log(2.0F), std::log(12.0F)});
  ExpectNear(run(Reduce::SUMSQUARE, Reduce::W), {1, 2, 1, 1}, {5, 25});
  ExpectNear(run(Reduce::L1, Reduce::C), {1, 1, 1, 2}, {4, 6});
  ExpectNear(run(Reduce::L2, Reduce::W), {1, 2, 1, 1}, {std::sqrt(5.0F), 5});
  ExpectNear(run(Reduce::MAX, Reduce::H), {1, 2, 1, 2}, {1, 2, 3, 4});
  ExpectNear(run(Reduce::MIN, Reduce::CHW), {1, 1, 1, 1}, {1});
  ExpectNear(run(Reduce::ARGMAX, Reduce::C), {1, 1, 1, 2}, {1, 1});
}

TEST(ReduceLayers, OverAnyAxes) {
  const Tensor x = Tensor::Floats({2, 2}, {1, 2, 3, 5});
  const auto rows = [](auto& reduce) { reduce.add_axes(-1); };
  const auto expect = [&](const Configure& set, const Shape& shape, const std::vector<float>& expected) {
    ExpectNear(RunLayer(x, set), shape, expected);
  };
  expect([&](Layer& l) { rows(*l.mutable_reducesum()); }, {2}, {3, 8});
  expect([&](Layer& l) { rows(*l.mutable_reducemean()); }, {2}, {1.5F, 4});
  expect([&](Layer& l) { rows(*l.mutable_reducemax()); }, {2}, {2, 5});
  expect([&](Layer& l) { rows(*l.mutable_reducemin()); }, {2}, {1, 3});
  expect([&](Layer& l) { rows(*l.mutable_reduceprod()); }, {2}, {2, 15});
  expect([&](Layer& l) { rows(*l.mutable_reducel1()); }, {2}, {3, 8});
  expect([&](Layer& l) { rows(*l.mutable_reducel2()); }, {2}, {std::sqrt(5.0F), std::sqrt(34.0F)});
  expect([&](Layer& l) { rows(*l.mutable_reducelogsum()); }, {2}, {std::log(3.0F), std::log(8.0F)});
  expect([&](Layer& l) { rows(*l.mutable_reducesumsquare()); }, {2}, {5, 34});
  const auto logSumExp = [](float a, float b) { return std::log(std::exp(a) + std::exp(b)); };
  expect([&](Layer& l) { rows(*l.mutable_reducelogsumexp()); }, {2}, {logSumExp(1, 2), logSumExp(3, 5)});
  expect([](Layer& l) { l.mutable_reducesum()->set_reduceall(true); }, {1}, {11});
  expect(
      [&](Layer& l) {
        rows(*l.mutable_reducesum());
        l.mutable_reducesum()->set_keepdims(true);
      },
      {2, 1}, {3, 8});
  expect([](Layer& l) { l.mutable_argmax(); }, {1, 2}, {1, 1});
  expect([](Layer& l) { l.mutable_argmin()->set_removedim(true); }, {2}, {0, 0});
  expect([](Layer& l) { l.mutable_cumsum()->set_axis(1); }, {2, 2}, {1, 3, 3, 8});
}

}  // namespace
}  // namespace ulmora::engine::program::testing
