// What is taken from the numerical library, and what is not.

#include "engine/cpu/OneDnn.h"

#include <gtest/gtest.h>

namespace ulmora::engine::cpu::onednn {
namespace {

TEST(FitsVectors, ImplementationsForOtherLengthsDoNot) {
  EXPECT_TRUE(FitsVectors("jit_1x1:sve_256", 256));
  EXPECT_FALSE(FitsVectors("jit_1x1:sve_256", 512));
  EXPECT_FALSE(FitsVectors("brgconv_1x1:sve_512", 1024));
  EXPECT_FALSE(FitsVectors("jit_dw:sve_512", 0));
  EXPECT_FALSE(FitsVectors("conv:jit:sve_128+any", 1280));
  EXPECT_TRUE(FitsVectors("conv:jit:sve_128+any", 128));
}

TEST(FitsVectors, NamesWithoutALengthDo) {
  EXPECT_TRUE(FitsVectors("gemm:ref", 512));
  EXPECT_TRUE(FitsVectors("brgconv:avx512_core", 0));
  EXPECT_TRUE(FitsVectors("", 0));
}

TEST(Describe, GivesNoImplementationForOtherVectors) {
  const Dims shape = {1, 32, 9, 10};
  const Desc image(shape, dnnl::memory::data_type::f32, dnnl::memory::format_tag::nChw8c);
  const Desc weights({32, 32, 1, 1}, dnnl::memory::data_type::f32, dnnl::memory::format_tag::any);
  const auto description = Describe<dnnl::convolution_forward>(
      Reference::Accepted, {}, dnnl::prop_kind::forward_inference, dnnl::algorithm::convolution_direct, image, weights,
      image, Dims{1, 1}, Dims{0, 0}, Dims{0, 0});
  if (description) {
    EXPECT_TRUE(FitsVectors(description->impl_info_str(), VectorBits())) << description->impl_info_str();
  }
}

}  // namespace
}  // namespace ulmora::engine::cpu::onednn
