#pragma once
// The only place that knows which interface of oneDNN it is compiled against: 2.x with operation descriptors,
// or 3.x without. Everything else in cpu/ describes primitives through these functions.

#include <charconv>
#include <cmath>
#include <cstddef>
#include <oneapi/dnnl/dnnl.hpp>
#include <optional>
#include <string>
#include <string_view>

#if defined(__aarch64__) && defined(__linux__)
#include <sys/prctl.h>
#endif

namespace ulmora::engine::cpu::onednn {

using Desc = dnnl::memory::desc;
using Dims = dnnl::memory::dims;

/// Keeps the library's variables of the environment from printing lines, from writing files, and from rounding more
/// than we do. Where a system has no such thing the call fails, and there is nothing to keep.
inline void IgnoreEnvironment() {
  dnnl_set_verbose(0);
  dnnl_set_jit_dump(0);
  dnnl_set_jit_profiling_flags(0);
  dnnl_set_default_fpmath_mode(dnnl_fpmath_mode_strict);
}

/// The one engine and the one stream that everything is prepared for and runs on.
[[nodiscard]] inline const dnnl::engine& CpuEngine() {
  static const dnnl::engine engine = [] {
    IgnoreEnvironment();
    return dnnl::engine(dnnl::engine::kind::cpu, 0);
  }();
  return engine;
}
[[nodiscard]] inline const dnnl::stream& CpuStream() {
  static const dnnl::stream stream(CpuEngine());
  return stream;
}

/// Channels that a blocked layout holds together: as many as the library's kernels for this processor take, or, where
/// it has none that count, as our own kernels are written for.
[[nodiscard]] inline int ChannelBlock() {
#if defined(__x86_64__)
  const auto isa = static_cast<unsigned>(dnnl::get_effective_cpu_isa());
  const auto avx512 = static_cast<unsigned>(dnnl::cpu_isa::avx512_core);
  return (isa & avx512) == avx512 ? 16 : 8;
#else
  return 8;
#endif
}

/// Whether an answer that the library can only give with its reference implementation counts: that one is correct, but
/// hundreds of times slower.
enum class Reference : bool { Refused, Accepted };

/// Bits of this processor's vectors where programs have to ask for their length (64-bit ARM's SVE), otherwise 0.
[[nodiscard]] inline int VectorBits() {
#if defined(__aarch64__) && defined(__linux__)
  static const int answer = prctl(PR_SVE_GET_VL);
  return answer < 0 ? 0 : 8 * (answer & PR_SVE_VL_LEN_MASK);
#else
  return 0;
#endif
}

/// Whether an implementation of that name is right on vectors of that many bits. The library takes those for shorter
/// vectors (such as "jit_1x1:sve_256" on 512 bits), too, but they store whole vectors, past the end of what is theirs.
[[nodiscard]] inline bool FitsVectors(std::string_view implementation, int vectorBits) {
  constexpr std::string_view kMark = "sve_";
  const std::size_t mark = implementation.find(kMark);
  if (mark == std::string_view::npos) return true;
  int bits = 0;
  std::from_chars(implementation.data() + mark + kMark.size(), implementation.data() + implementation.size(), bits);
  return bits == vectorBits;
}

template <typename Description>
[[nodiscard]] bool IsReference(const Description& description) {
  return std::string_view(description.impl_info_str()).starts_with("ref");
}

/// Describes `Primitive` with these arguments: none if the library refuses them.
template <typename Primitive, typename... Arguments>
[[nodiscard]] std::optional<typename Primitive::primitive_desc> Describe(Reference reference,
                                                                         const dnnl::primitive_attr& attributes,
                                                                         const Arguments&... arguments) {
  using Description = typename Primitive::primitive_desc;
  try {
#if DNNL_VERSION_MAJOR >= 3
    Description description(CpuEngine(), arguments..., attributes, true);
#else
    Description description(typename Primitive::desc(arguments...), attributes, CpuEngine(), true);
#endif
    if (!description) return std::nullopt;
    while (!FitsVectors(description.impl_info_str(), VectorBits())) {
      if (!description.next_impl()) return std::nullopt;
    }
    if (reference == Reference::Refused && IsReference(description)) return std::nullopt;
    return description;
  } catch (const dnnl::error&) {
    return std::nullopt;
  }
}

/// Tensors and window of a convolution or, as deconvolution, its transpose. Dilations count from 0 (dense). A zero bias
/// descriptor means no bias.
struct Window {
  Desc source;
  Desc weights;
  Desc bias;
  Desc destination;
  Dims strides;
  Dims dilations;
  Dims padBefore;
  Dims padAfter;
};

template <typename Primitive>
[[nodiscard]] std::optional<typename Primitive::primitive_desc> DescribeWindow(Reference reference,
                                                                               const dnnl::primitive_attr& attributes,
                                                                               dnnl::algorithm algorithm,
                                                                               const Window& w) {
  return Describe<Primitive>(reference, attributes, dnnl::prop_kind::forward_inference, algorithm, w.source, w.weights,
                             w.bias, w.destination, w.strides, w.dilations, w.padBefore, w.padAfter);
}

/// Whether a deconvolution's kernel does post-operations itself. Others than these have them done by the reference
/// implementation, element by element, which takes many times as long as the deconvolution.
template <typename Description>
[[nodiscard]] bool DeconvolutionFuses(const Description& description) {
  return std::string_view(description.impl_info_str()).starts_with("brg");
}

/// Whether a convolution through matrix products would combine its result with the wrong elements of another tensor. So
/// it does with channels last on processors without AVX-512, as 2.6 has it: the place in the other tensor stands still.
template <typename Description>
[[nodiscard]] bool CombinesWrongly(const Description& description, const dnnl::primitive_attr& attributes) {
  if (std::string_view(description.impl_info_str()).find("gemm") == std::string_view::npos) return false;
  const dnnl::post_ops operations = attributes.get_post_ops();
  for (int i = 0; i < operations.len(); ++i) {
    if (operations.kind(i) == dnnl::primitive::kind::binary) return true;
  }
  return false;
}

/// A function that the library applies to each element.
struct Eltwise {
  dnnl::algorithm algorithm = dnnl::algorithm::eltwise_linear;
  float alpha = 0.0F;
  float beta = 0.0F;
};

/// ln(1 + exp(x)).
[[nodiscard]] inline Eltwise SoftPlus() {
  // 3.x generalised it to ln(1 + exp(alpha x)) / alpha; 2.x ignores alpha.
  return {dnnl::algorithm::eltwise_soft_relu, 1.0F, 0.0F};
}

/// x * min(max(alpha * x + beta, 0), 1): none if the library only has it with other parameters.
[[nodiscard]] inline std::optional<Eltwise> HardSwish(float alpha, float beta) {
#if DNNL_VERSION_MAJOR < 3
  // Fixed at 1/6 and 1/2 there, give or take what half precision makes of 1/6.
  if (std::abs(alpha - 1.0F / 6.0F) > 1e-6F || beta != 0.5F) return std::nullopt;
#endif
  return Eltwise{dnnl::algorithm::eltwise_hardswish, alpha, beta};
}

[[nodiscard]] inline auto DescribeEltwise(Reference reference, const dnnl::primitive_attr& attributes,
                                          const Eltwise& function, const Desc& data) {
#if DNNL_VERSION_MAJOR >= 3
  return Describe<dnnl::eltwise_forward>(reference, attributes, dnnl::prop_kind::forward_inference, function.algorithm,
                                         data, data, function.alpha, function.beta);
#else
  return Describe<dnnl::eltwise_forward>(reference, attributes, dnnl::prop_kind::forward_inference, function.algorithm,
                                         data, function.alpha, function.beta);
#endif
}

[[nodiscard]] inline auto DescribePooling(Reference reference, const dnnl::primitive_attr& attributes,
                                          dnnl::algorithm algorithm, const Desc& source, const Desc& destination,
                                          const Dims& strides, const Dims& kernel, const Dims& padBefore,
                                          const Dims& padAfter) {
#if DNNL_VERSION_MAJOR >= 3
  const Dims dense(kernel.size(), 0);
  return Describe<dnnl::pooling_forward>(reference, attributes, dnnl::prop_kind::forward_inference, algorithm, source,
                                         destination, strides, kernel, dense, padBefore, padAfter);
#else
  return Describe<dnnl::pooling_forward>(reference, attributes, dnnl::prop_kind::forward_inference, algorithm, source,
                                         destination, strides, kernel, padBefore, padAfter);
#endif
}

#if DNNL_VERSION_MAJOR >= 3
using Softmax = dnnl::softmax_forward;
#else
using Softmax = dnnl::softmax_v2_forward;
#endif

[[nodiscard]] inline auto DescribeSoftmax(Reference reference, const dnnl::primitive_attr& attributes,
                                          const Desc& source, const Desc& destination, int axis) {
  return Describe<Softmax>(reference, attributes, dnnl::prop_kind::forward_inference, dnnl::algorithm::softmax_accurate,
                           source, destination, axis);
}

/// `bias` may be a zero descriptor.
[[nodiscard]] inline auto DescribeMatmul(Reference reference, const dnnl::primitive_attr& attributes,
                                         const Desc& source, const Desc& weights, const Desc& bias,
                                         const Desc& destination) {
  return Describe<dnnl::matmul>(reference, attributes, source, weights, bias, destination);
}

/// Attributes with which scratch memory is handed in at execution.
[[nodiscard]] inline dnnl::primitive_attr PlainAttributes() {
  dnnl::primitive_attr attributes;
  attributes.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  return attributes;
}

/// The library's name for the kernel behind a primitive.
[[nodiscard]] inline std::string ImplementationOf(const dnnl::primitive& primitive) {
  const_dnnl_primitive_desc_t description = nullptr;
  const char* name = "";
  if (dnnl_primitive_get_primitive_desc(primitive.get(), &description) != dnnl_success ||
      dnnl_primitive_desc_query(description, dnnl_query_impl_info_str, 0, static_cast<void*>(&name)) != dnnl_success) {
    return "unknown";
  }
  return name;
}

inline void AppendEltwise(dnnl::post_ops& postOps, const Eltwise& function) {
#if DNNL_VERSION_MAJOR >= 3
  postOps.append_eltwise(function.algorithm, function.alpha, function.beta);
#else
  postOps.append_eltwise(1.0F, function.algorithm, function.alpha, function.beta);
#endif
}

}  // namespace ulmora::engine::cpu::onednn
