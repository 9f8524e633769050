#pragma once
// Reference evaluation of operations that work on one float at a time. Computes in double and rounds once, so that the
// result is as good as float32 can hold and makes an oracle for faster forms.

#include "engine/program/OpCall.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace ulmora::engine::program {

/// `function(double) -> double` of every element of the float operand x.
template <typename Function>
[[nodiscard]] std::vector<Tensor> MapFloats(const OpCall& call, Function function) {
  const Tensor& x = call.Value("x");
  std::vector<float> result;
  result.reserve(x.floats().size());
  for (const float value : x.floats()) result.push_back(static_cast<float>(function(static_cast<double>(value))));
  return {Tensor::Floats(x.shape(), std::move(result), x.element())};
}

/// `function(double, channel) -> double` of every element of x; the channel is the index along axis 1.
template <typename Function>
[[nodiscard]] std::vector<Tensor> MapChannels(const OpCall& call, Function function) {
  const Tensor& x = call.Value("x");
  const Shape& shape = x.shape();
  std::size_t inner = 1;
  for (std::size_t i = 2; i < shape.size(); ++i) inner *= static_cast<std::size_t>(shape[i]);
  const auto channels = static_cast<std::size_t>(shape[1]);
  std::vector<float> result;
  result.reserve(x.floats().size());
  for (std::size_t i = 0; i < x.floats().size(); ++i) {
    const std::size_t channel = i / inner % channels;
    result.push_back(static_cast<float>(function(static_cast<double>(x.floats()[i]), channel)));
  }
  return {Tensor::Floats(shape, std::move(result), x.element())};
}

}  // namespace ulmora::engine::program
