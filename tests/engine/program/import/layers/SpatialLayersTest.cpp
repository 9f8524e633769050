// Layers that know height and width, on numbers that can be followed by hand.

#include "tests/engine/program/OpTesting.h"
#include "tests/engine/program/import/layers/LayerTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ulmora::engine::program::testing {
namespace {

using coreml::layers::Convolution;
using coreml::layers::Layer;
using coreml::layers::Pooling;

template <typename Parameters>
void SetBorders(Parameters& amounts, std::uint64_t top, std::uint64_t bottom, std::uint64_t left, std::uint64_t right) {
  auto& height = *amounts.add_borderamounts();
  height.set_startedgesize(top);
  height.set_endedgesize(bottom);
  auto& width = *amounts.add_borderamounts();
  width.set_startedgesize(left);
  width.set_endedgesize(right);
}

/// One channel in and out, a 1 x 3 kernel.
Convolution& RowKernel(Layer& layer, const std::vector<float>& kernel) {
  Convolution& conv = *layer.mutable_convolution();
  conv.set_outputchannels(1);
  conv.set_kernelchannels(1);
  conv.add_kernelsize(1);
  conv.add_kernelsize(kernel.size());
  SetWeights(*conv.mutable_weights(), kernel);
  return conv;
}

const Tensor kRow = Tensor::Floats({1, 1, 1, 5}, {1, 2, 3, 4, 5});

TEST(ConvolutionLayer, WithoutPadding) {
  ExpectNear(RunLayer(kRow, [](Layer& layer) { RowKernel(layer, {100, 10, 1}); }), {1, 1, 1, 3}, {123, 234, 345});
}

TEST(ConvolutionLayer, WithBordersStrideAndBias) {
  const auto configure = [](Layer& layer) {
    Convolution& conv = RowKernel(layer, {100, 10, 1});
    SetBorders(*conv.mutable_valid()->mutable_paddingamounts(), 0, 0, 1, 2);
    conv.add_stride(1);
    conv.add_stride(2);
    conv.set_hasbias(true);
    SetWeights(*conv.mutable_bias(), {0.5F});
  };
  ExpectNear(RunLayer(kRow, configure), {1, 1, 1, 3}, {12.5F, 234.5F, 450.5F});
}

TEST(ConvolutionLayer, SameSizeWithTheOddElementOnEitherSide) {
  const auto run = [](bool before) {
    return RunLayer(kRow, [before](Layer& layer) {
      auto& same = *RowKernel(layer, {10, 1}).mutable_same();
      if (before) same.set_asymmetrymode(coreml::layers::SamePadding::TOP_LEFT_HEAVY);
    });
  };
  ExpectNear(run(false), {1, 1, 1, 5}, {12, 23, 34, 45, 50});
  ExpectNear(run(true), {1, 1, 1, 5}, {1, 12, 23, 34, 45});
}

TEST(ConvolutionLayer, DilatedAndInGroups) {
  const auto dilated = [](Layer& layer) {
    Convolution& conv = RowKernel(layer, {10, 1});
    conv.add_dilationfactor(1);
    conv.add_dilationfactor(3);
  };
  ExpectNear(RunLayer(kRow, dilated), {1, 1, 1, 2}, {14, 25});
  const auto grouped = [](Layer& layer) {
    Convolution& conv = RowKernel(layer, {2});
    conv.set_outputchannels(2);
    conv.set_ngroups(2);
    conv.clear_weights();
    SetWeights(*conv.mutable_weights(), {2, 3});
  };
  ExpectNear(RunLayer(Tensor::Floats({1, 2, 1, 2}, {1, 2, 3, 4}), grouped), {1, 2, 1, 2}, {2, 4, 9, 12});
}

TEST(ConvolutionLayer, OfPlanesWithoutBatchAndOfFiveDimensions) {
  const auto configure = [](Layer& layer) { RowKernel(layer, {10, 1}); };
  ExpectNear(RunLayer(Tensor::Floats({1, 1, 3}, {1, 2, 3}), configure), {1, 1, 2}, {12, 23});
  ExpectNear(RunLayer(Tensor::Floats({2, 1, 1, 1, 3}, {1, 2, 3, 4, 5, 6}), configure), {2, 1, 1, 1, 2},
             {12, 23, 45, 56});
}

TEST(ConvolutionLayer, WeightsFromAnInput) {
  const Tensor kernel = Tensor::Floats({1, 1, 1, 2}, {10, 1});
  const auto configure = [](Layer& layer) {
    Convolution& conv = RowKernel(layer, {0, 0});
    conv.clear_weights();
  };
  ExpectNear(RunLayer(kRow, configure, {kernel}), {1, 1, 1, 4}, {12, 23, 34, 45});
}

TEST(ConvolutionLayer, WeightsMustFitAndBeThere) {
  const auto refusal = [](const std::function<void(Convolution&)>& change) {
    return RefusalOfLayer(kRow, [&](Layer& layer) { change(RowKernel(layer, {10, 1})); });
  };
  EXPECT_THAT(refusal([](Convolution& conv) { conv.clear_weights(); }),
              ::testing::HasSubstr("convolution layer 'tested': lacks weights"));
  EXPECT_THAT(refusal([](Convolution& conv) { conv.set_kernelchannels(2); }),
              ::testing::HasSubstr("parameter 'weights': hold 8 bytes, expected 16 for shape [1, 2, 1, 2]"));
  EXPECT_THAT(refusal([](Convolution& conv) { conv.add_kernelsize(2); }), ::testing::HasSubstr("'tested'"));
}

Convolution& Deconvolve(Layer& layer, const std::vector<float>& kernel, std::uint64_t stride) {
  Convolution& conv = RowKernel(layer, kernel);
  conv.set_isdeconvolution(true);
  conv.add_stride(1);
  conv.add_stride(stride);
  return conv;
}

const Tensor kShort = Tensor::Floats({1, 1, 1, 3}, {1, 2, 3});

TEST(DeconvolutionLayer, WholeAndCut) {
  // Kernel [1, 10, 100] at every second place: 1 10 101 | 20 + ...
  const std::vector<float> whole = {1, 10, 102, 20, 203, 30, 300};
  ExpectNear(RunLayer(kShort, [](Layer& layer) { Deconvolve(layer, {1, 10, 100}, 2); }), {1, 1, 1, 7}, whole);
  const auto cut = [](Layer& layer) {
    SetBorders(*Deconvolve(layer, {1, 10, 100}, 2).mutable_valid()->mutable_paddingamounts(), 0, 0, 1, 0);
  };
  ExpectNear(RunLayer(kShort, cut), {1, 1, 1, 6}, {10, 102, 20, 203, 30, 300});
}

TEST(DeconvolutionLayer, SameAndGivenSizes) {
  const auto same = [](Layer& layer) { Deconvolve(layer, {1, 10, 100}, 2).mutable_same(); };
  ExpectNear(RunLayer(kShort, same), {1, 1, 1, 6}, {1, 10, 102, 20, 203, 30});
  const auto given = [](std::uint64_t width) {
    return [width](Layer& layer) {
      Convolution& conv = Deconvolve(layer, {1, 10, 100}, 2);
      conv.add_outputshape(1);
      conv.add_outputshape(width);
    };
  };
  ExpectNear(RunLayer(kShort, given(5)), {1, 1, 1, 5}, {10, 102, 20, 203, 30});
  ExpectNear(RunLayer(kShort, given(6)), {1, 1, 1, 6}, {1, 10, 102, 20, 203, 30});
}

TEST(DeconvolutionLayer, WhatTheKernelDoesNotReachIsTheBiasAlone) {
  const auto longer = [](Layer& layer) {
    Convolution& conv = Deconvolve(layer, {1, 10, 100}, 2);
    conv.add_outputshape(1);
    conv.add_outputshape(9);
    conv.set_hasbias(true);
    SetWeights(*conv.mutable_bias(), {0.5F});
  };
  ExpectNear(RunLayer(kShort, longer), {1, 1, 1, 9}, {1.5F, 10.5F, 102.5F, 20.5F, 203.5F, 30.5F, 300.5F, 0.5F, 0.5F});
  const auto incomplete = [](Layer& layer) { Deconvolve(layer, {1, 10, 100}, 2).add_outputshape(9); };
  EXPECT_THAT(RefusalOfLayer(kShort, incomplete), ::testing::HasSubstr("outputShape has 1 entries, expected 2"));
}

TEST(DeconvolutionLayer, GivenSizeOfFiveDimensions) {
  // The batch, which the shape of the result names, is that of all leading dimensions together.
  const auto given = [](Layer& layer) {
    Convolution& conv = Deconvolve(layer, {1, 10}, 2);
    conv.add_outputshape(1);
    conv.add_outputshape(3);
  };
  ExpectNear(RunLayer(Tensor::Floats({2, 1, 1, 1, 2}, {1, 2, 3, 4}), given), {2, 1, 1, 1, 3}, {1, 10, 2, 3, 30, 4});
}

TEST(DeconvolutionLayer, GroupsOfSeveralOutputs) {
  const auto configure = [](Layer& layer) {
    Convolution& conv = *layer.mutable_convolution();
    conv.set_isdeconvolution(true);
    conv.set_outputchannels(4);
    conv.set_kernelchannels(2);
    conv.set_ngroups(2);
    conv.add_kernelsize(1);
    conv.add_kernelsize(1);
    SetWeights(*conv.mutable_weights(), {1, 10, 100, 1000});
  };
  ExpectNear(RunLayer(Tensor::Floats({1, 2, 1, 1}, {2, 3}), configure), {1, 4, 1, 1}, {2, 20, 300, 3000});
}

TEST(Convolution3dLayer, OverDepth) {
  const auto configure = [](Layer& layer) {
    auto& conv = *layer.mutable_convolution3d();
    conv.set_outputchannels(1);
    conv.set_inputchannels(1);
    conv.set_kerneldepth(2);
    conv.set_kernelheight(1);
    conv.set_kernelwidth(1);
    conv.set_paddingtype(coreml::layers::Convolution3D::VALID);
    SetWeights(*conv.mutable_weights(), {10, 1});
  };
  ExpectNear(RunLayer(Tensor::Floats({1, 1, 3, 1, 1}, {1, 2, 3}), configure), {1, 1, 2, 1, 1}, {12, 23});
}

TEST(Convolution3dLayer, DeconvolvedToAGivenSize) {
  const auto given = [](std::uint64_t depth) {
    return [depth](Layer& layer) {
      auto& conv = *layer.mutable_convolution3d();
      conv.set_isdeconvolution(true);
      conv.set_outputchannels(1);
      conv.set_inputchannels(1);
      conv.set_kerneldepth(2);
      conv.set_kernelheight(1);
      conv.set_kernelwidth(1);
      conv.set_stridedepth(2);
      SetWeights(*conv.mutable_weights(), {1, 10});
      if (depth == 0) return;
      for (const std::uint64_t size : {depth, std::uint64_t{1}, std::uint64_t{1}}) conv.add_outputshape(size);
    };
  };
  const Tensor x = Tensor::Floats({1, 1, 2, 1, 1}, {1, 2});
  ExpectNear(RunLayer(x, given(0)), {1, 1, 4, 1, 1}, {1, 10, 2, 20});
  ExpectNear(RunLayer(x, given(3)), {1, 1, 3, 1, 1}, {1, 10, 2});
  ExpectNear(RunLayer(x, given(2)), {1, 1, 2, 1, 1}, {10, 2});
  ExpectNear(RunLayer(x, given(5)), {1, 1, 5, 1, 1}, {1, 10, 2, 20, 0});
}

Tensor RunPool(const Tensor& x, Pooling::PoolingType type, const std::function<void(Pooling&)>& set) {
  return RunLayer(x, [&](Layer& layer) {
    Pooling& pool = *layer.mutable_pooling();
    pool.set_type(type);
    for (const std::uint64_t size : {1U, 2U}) {
      pool.add_kernelsize(size);
      pool.add_stride(size);
    }
    set(pool);
  });
}

TEST(PoolingLayer, Types) {
  const auto plain = [](Pooling& pool) { pool.mutable_valid(); };
  ExpectNear(RunPool(kRow, Pooling::MAX, plain), {1, 1, 1, 2}, {2, 4});
  ExpectNear(RunPool(kRow, Pooling::AVERAGE, plain), {1, 1, 1, 2}, {1.5F, 3.5F});
  ExpectNear(RunPool(kRow, Pooling::L2, plain), {1, 1, 1, 2}, {std::sqrt(5.0F), 5.0F});
}

TEST(PoolingLayer, LastPixelsAndBorders) {
  const auto last = [](Pooling& pool) {
    for (int i = 0; i < 2; ++i) pool.mutable_includelastpixel()->add_paddingamounts(0);
  };
  ExpectNear(RunPool(kRow, Pooling::MAX, last), {1, 1, 1, 3}, {2, 4, 5});
  const auto bordered = [](bool exclude) {
    return [exclude](Pooling& pool) {
      SetBorders(*pool.mutable_valid()->mutable_paddingamounts(), 0, 0, 1, 0);
      pool.set_avgpoolexcludepadding(exclude);
    };
  };
  ExpectNear(RunPool(kRow, Pooling::AVERAGE, bordered(false)), {1, 1, 1, 3}, {0.5F, 2.5F, 4.5F});
  ExpectNear(RunPool(kRow, Pooling::AVERAGE, bordered(true)), {1, 1, 1, 3}, {1.0F, 2.5F, 4.5F});
}

TEST(PoolingLayer, Global) {
  const Tensor x = Tensor::Floats({1, 2, 1, 2}, {1, 5, -3, -4});
  const auto run = [&](Pooling::PoolingType type) {
    return RunPool(x, type, [](Pooling& pool) { pool.set_globalpooling(true); });
  };
  ExpectNear(run(Pooling::MAX), {1, 2, 1, 1}, {5, -3});
  ExpectNear(run(Pooling::AVERAGE), {1, 2, 1, 1}, {3, -3.5F});
  ExpectNear(run(Pooling::L2), {1, 2, 1, 1}, {std::sqrt(26.0F), 5});
}

TEST(Pooling3dLayers, OverDepth) {
  const Tensor x = Tensor::Floats({1, 1, 2, 1, 2}, {1, 2, 7, 4});
  const auto pooled = [](Layer& layer) {
    auto& pool = *layer.mutable_pooling3d();
    pool.set_kerneldepth(2);
    pool.set_kernelheight(1);
    pool.set_kernelwidth(1);
    pool.set_stridedepth(1);
    pool.set_strideheight(1);
    pool.set_stridewidth(1);
    pool.set_paddingtype(coreml::layers::Pooling3D::VALID);
  };
  ExpectNear(RunLayer(x, pooled), {1, 1, 1, 1, 2}, {7, 4});
  const auto global = [](Layer& layer) {
    layer.mutable_globalpooling3d()->set_type(coreml::layers::GlobalPooling3D::AVERAGE);
  };
  ExpectNear(RunLayer(x, global), {1, 1, 1, 1, 1}, {3.5F});
}

TEST(PaddingLayers, ConstantReflectionReplication) {
  const auto run = [](const std::function<void(coreml::layers::Padding&)>& set) {
    return RunLayer(kShort, [&](Layer& layer) {
      SetBorders(*layer.mutable_padding()->mutable_paddingamounts(), 0, 0, 2, 1);
      set(*layer.mutable_padding());
    });
  };
  ExpectNear(run([](auto& pad) { pad.mutable_constant()->set_value(9); }), {1, 1, 1, 6}, {9, 9, 1, 2, 3, 9});
  ExpectNear(run([](auto& pad) { pad.mutable_reflection(); }), {1, 1, 1, 6}, {3, 2, 1, 2, 3, 2});
  ExpectNear(run([](auto& pad) { pad.mutable_replication(); }), {1, 1, 1, 6}, {1, 1, 1, 2, 3, 3});
}

TEST(PaddingLayers, ConstantPadByAmountAndToSize) {
  const auto run = [](const std::vector<std::uint64_t>& amounts, bool sizes) {
    return RunLayer(Tensor::Floats({1, 2}, {1, 2}), [&](Layer& layer) {
      auto& pad = *layer.mutable_constantpad();
      pad.set_value(7);
      pad.set_padtogivenoutputsizemode(sizes);
      for (const std::uint64_t amount : amounts) pad.add_padamounts(amount);
    });
  };
  ExpectNear(run({0, 1, 1, 0}, false), {2, 3}, {7, 1, 2, 7, 7, 7});
  ExpectNear(run({0, 2, 4, 0}, true), {2, 4}, {7, 7, 1, 2, 7, 7, 7, 7});
}

TEST(PaddingLayers, AmountsAndSizesFromAnInput) {
  const auto run = [](bool sizes, const std::vector<float>& amounts) {
    const auto configure = [sizes](Layer& layer) {
      layer.mutable_constantpad()->set_value(7);
      layer.mutable_constantpad()->set_padtogivenoutputsizemode(sizes);
    };
    return RunLayer(Tensor::Floats({1, 2}, {1, 2}), configure, {Tensor::Floats({4}, amounts)});
  };
  ExpectNear(run(false, {0, 1, 1, 0}), {2, 3}, {7, 1, 2, 7, 7, 7});
  ExpectNear(run(true, {0, 2, 4, 0}), {2, 4}, {7, 7, 1, 2, 7, 7, 7, 7});
}

TEST(CropLayer, BordersOrLikeAnother) {
  const Tensor x = Ramp({1, 1, 3, 4});
  const auto borders = [](Layer& layer) { SetBorders(*layer.mutable_crop()->mutable_cropamounts(), 1, 0, 1, 2); };
  ExpectNear(RunLayer(x, borders), {1, 1, 2, 1}, {5, 9});
  const auto like = [](Layer& layer) {
    layer.mutable_crop()->add_offset(1);
    layer.mutable_crop()->add_offset(2);
  };
  ExpectNear(RunLayer(x, like, {Ramp({1, 1, 2, 2})}), {1, 1, 2, 2}, {6, 7, 10, 11});
}

Tensor RunUpsample(const Tensor& x, std::uint64_t factor, const std::function<void(coreml::layers::Upsample&)>& set) {
  return RunLayer(x, [&](Layer& layer) {
    layer.mutable_upsample()->add_scalingfactor(1);
    layer.mutable_upsample()->add_scalingfactor(factor);
    set(*layer.mutable_upsample());
  });
}

TEST(UpsampleLayer, NearestAndGridsOfBilinear) {
  using coreml::layers::Upsample;
  const Tensor x = Tensor::Floats({1, 1, 1, 2}, {0, 4});
  ExpectNear(RunUpsample(x, 2, [](Upsample&) {}), {1, 1, 1, 4}, {0, 0, 4, 4});
  const auto bilinear = [&](Upsample::LinearUpsampleMode grid) {
    return RunUpsample(x, 2, [grid](Upsample& upsample) {
      upsample.set_mode(Upsample::BILINEAR);
      upsample.set_linearupsamplemode(grid);
    });
  };
  ExpectNear(bilinear(Upsample::DEFAULT), {1, 1, 1, 4}, {0, 2, 4, 4});
  ExpectNear(bilinear(Upsample::ALIGN_CORNERS_TRUE), {1, 1, 1, 4}, {0, 4.0F / 3, 8.0F / 3, 4});
  ExpectNear(bilinear(Upsample::ALIGN_CORNERS_FALSE), {1, 1, 1, 4}, {0, 1, 3, 4});
}

TEST(UpsampleLayer, FractionalFactors) {
  const auto configure = [](Layer& layer) {
    layer.mutable_upsample()->add_fractionalscalingfactor(1.0F);
    layer.mutable_upsample()->add_fractionalscalingfactor(1.5F);
  };
  ExpectNear(RunLayer(Tensor::Floats({1, 1, 1, 2}, {0, 4}), configure), {1, 1, 1, 3}, {0, 0, 4});
}

TEST(ResizeBilinearLayer, Grids) {
  using coreml::layers::SamplingMode;
  const Tensor x = Tensor::Floats({1, 1, 1, 3}, {0, 6, 12});
  const auto run = [&](std::uint64_t width, SamplingMode::Method method) {
    return RunLayer(x, [&](Layer& layer) {
      layer.mutable_resizebilinear()->add_targetsize(1);
      layer.mutable_resizebilinear()->add_targetsize(width);
      layer.mutable_resizebilinear()->mutable_mode()->set_samplingmethod(method);
    });
  };
  ExpectNear(run(5, SamplingMode::STRICT_ALIGN_ENDPOINTS_MODE), {1, 1, 1, 5}, {0, 3, 6, 9, 12});
  ExpectNear(run(1, SamplingMode::STRICT_ALIGN_ENDPOINTS_MODE), {1, 1, 1, 1}, {0});
  ExpectNear(run(1, SamplingMode::ALIGN_ENDPOINTS_MODE), {1, 1, 1, 1}, {6});
  ExpectNear(run(6, SamplingMode::UPSAMPLE_MODE), {1, 1, 1, 6}, {0, 3, 6, 9, 12, 12});
  ExpectNear(run(4, SamplingMode::ROI_ALIGN_MODE), {1, 1, 1, 4}, {1.5F, 4.5F, 7.5F, 10.5F});
}

using coreml::layers::CropResize;

/// Two by two samples of boxes [n, 1, 4 or 5, 1, 1].
Tensor RunCropResize(const Tensor& x, const Tensor& boxes, const std::function<void(CropResize&)>& set = {}) {
  return RunLayer(x,
                  [&](Layer& layer) {
                    CropResize& crop = *layer.mutable_cropresize();
                    crop.add_targetsize(2);
                    crop.add_targetsize(2);
                    if (set) set(crop);
                  },
                  {boxes});
}

TEST(CropResizeLayer, BoxesOfAllOrOfNamedImages) {
  const Tensor x = Ramp({2, 1, 3, 3});
  const Tensor all = Tensor::Floats({1, 1, 4, 1, 1}, {0, 0, 1, 2});
  ExpectNear(RunCropResize(x, all), {1, 2, 1, 2, 2}, {0, 2, 3, 5, 9, 11, 12, 14});
  const Tensor named = Tensor::Floats({2, 1, 5, 1, 1}, {1, 0, 0, 1, 2, 0, 1, 1, 2, 2});
  ExpectNear(RunCropResize(x, named), {2, 1, 1, 2, 2}, {9, 11, 12, 14, 4, 5, 7, 8});
}

TEST(CropResizeLayer, CoordinatesAndGrids) {
  const Tensor x = Ramp({1, 1, 3, 3});
  const auto box = [](const std::vector<float>& corners) { return Tensor::Floats({1, 1, 4, 1, 1}, corners); };
  const auto expect = [&](const std::vector<float>& corners, const std::function<void(CropResize&)>& set,
                          const std::vector<float>& expected) {
    ExpectNear(RunCropResize(x, box(corners), set), {1, 1, 1, 2, 2}, expected);
  };
  expect({0.5F, 0, 1, 0.5F}, [](auto& crop) { crop.set_normalizedcoordinates(true); }, {3, 4, 6, 7});
  expect({0, 0, 4, 2}, [](auto& crop) { crop.set_spatialscale(0.5F); }, {0, 1, 6, 7});
  const auto corners = [](coreml::layers::BoxCoordinatesMode::Coordinates mode) {
    return [mode](CropResize& crop) { crop.mutable_boxindicesmode()->set_boxmode(mode); };
  };
  using coreml::layers::BoxCoordinatesMode;
  expect({0, 1, 1, 2}, corners(BoxCoordinatesMode::CORNERS_WIDTH_FIRST), {3, 4, 6, 7});
  expect({1, 1.5F, 2, 1}, corners(BoxCoordinatesMode::CENTER_SIZE_HEIGHT_FIRST), {1, 2, 7, 8});
  expect({1.5F, 1, 1, 2}, corners(BoxCoordinatesMode::CENTER_SIZE_WIDTH_FIRST), {1, 2, 7, 8});
  const auto grid = [](coreml::layers::SamplingMode::Method method) {
    return [method](CropResize& crop) { crop.mutable_mode()->set_samplingmethod(method); };
  };
  using coreml::layers::SamplingMode;
  expect({0, 0, 2, 2}, grid(SamplingMode::ALIGN_ENDPOINTS_MODE), {0, 2, 6, 8});
  expect({0, 0, 2, 2}, grid(SamplingMode::UPSAMPLE_MODE), {0, 1.5F, 4.5F, 6});
  expect({0, 0, 2, 2}, grid(SamplingMode::ROI_ALIGN_MODE), {2, 3, 5, 6});
}

TEST(CropResizeLayer, OutermostPixelsGoOnBeyondTheImage) {
  const Tensor box = Tensor::Floats({1, 1, 4, 1, 1}, {-4, -4, 0, 0});
  ExpectNear(RunCropResize(Ramp({1, 1, 3, 3}, 5.0F), box), {1, 1, 1, 2, 2}, {5, 5, 5, 5});
}

TEST(ReorganizeDataLayer, ChannelOrders) {
  using coreml::layers::ReorganizeData;
  const auto run = [](const Tensor& x, ReorganizeData::ReorganizationType mode) {
    return RunLayer(x, [&](Layer& layer) {
      layer.mutable_reorganizedata()->set_mode(mode);
      layer.mutable_reorganizedata()->set_blocksize(2);
    });
  };
  const Tensor deep = Ramp({1, 8, 1, 1});
  ExpectNear(run(deep, ReorganizeData::PIXEL_SHUFFLE), {1, 2, 2, 2}, {0, 1, 2, 3, 4, 5, 6, 7});
  ExpectNear(run(deep, ReorganizeData::DEPTH_TO_SPACE), {1, 2, 2, 2}, {0, 2, 4, 6, 1, 3, 5, 7});
  ExpectNear(run(Ramp({1, 2, 2, 2}), ReorganizeData::SPACE_TO_DEPTH), {1, 8, 1, 1}, {0, 4, 1, 5, 2, 6, 3, 7});
}

}  // namespace
}  // namespace ulmora::engine::program::testing
