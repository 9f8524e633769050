#pragma once
// Programs of well-known shapes with random weights: what the engine is measured and tested on.

#include "engine/program/OpRegistry.h"
#include "engine/program/Program.h"
#include "engine/program/Specialize.h"
#include "engine/program/passes/Pipeline.h"

#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ulmora::engine::sample {

using program::Operands;
using program::ValueId;

/// Writes a network layer by layer.
class NetworkWriter {
 public:
  ValueId Input(Shape shape) {
    const ValueId id = program_.AddValue({"input", {ElementType::Float32, std::move(shape), true}, {}});
    program_.inputs = {id};
    return id;
  }

  ValueId Call(std::string_view key, const std::map<std::string_view, Operands>& arguments) {
    program::Operation operation;
    operation.definition = program::FindOp(key);
    operation.name = std::string(key) + "_" + std::to_string(program_.operations.size());
    operation.arguments.resize(operation.definition->parameters.size());
    for (const auto& [parameter, ids] : arguments) {
      operation.arguments[static_cast<std::size_t>(operation.definition->IndexOf(parameter))] = ids;
    }
    const ValueId id = program_.AddValue({operation.name, {ElementType::Float32, {}, false}, {}});
    operation.results = {id};
    program_.operations.push_back(std::move(operation));
    return id;
  }

  /// Square kernel; size-preserving zero padding for odd kernels with stride 1, none otherwise.
  ValueId Conv(ValueId x, std::int64_t inputs, std::int64_t outputs, std::int64_t kernel, int stride = 1) {
    const int pad = stride == 1 ? static_cast<int>(kernel / 2) : 0;
    return Call("conv", {{"x", {x}},
                         {"weight", {Weights({outputs, inputs, kernel, kernel}, inputs * kernel * kernel)}},
                         {"strides", {Ints({stride, stride})}},
                         {"pad_type", {Constant(Tensor::Text("custom"))}},
                         {"pad", {Ints({pad, pad, pad, pad})}}});
  }

  /// Kernel 2, stride 2.
  ValueId Up(ValueId x, std::int64_t inputs, std::int64_t outputs) {
    return Call("conv_transpose", {{"x", {x}},
                                   {"weight", {Weights({inputs, outputs, 2, 2}, inputs)}},
                                   {"strides", {Ints({2, 2})}},
                                   {"pad_type", {Constant(Tensor::Text("valid"))}}});
  }

  ValueId Relu(ValueId x) { return Call("relu", {{"x", {x}}}); }
  ValueId Add(ValueId x, ValueId y) { return Call("add", {{"x", {x}}, {"y", {y}}}); }
  ValueId PixelShuffle(ValueId x, int factor) {
    return Call("pixel_shuffle", {{"x", {x}}, {"upscale_factor", {Constant(Tensor::Int(factor))}}});
  }
  ValueId Constant(Tensor tensor) {
    return program_.AddConstant("constant_" + std::to_string(program_.values.size()), std::move(tensor));
  }

  /// Specialized to its input shape; rewritten, too, if asked.
  program::Program Finish(ValueId output, bool rewrite) {
    program_.outputs = {output};
    program::Program specialized = program::Specialize(program_, {program_.at(program_.inputs.front()).type.shape});
    if (rewrite) program::Rewrite(specialized);
    return specialized;
  }

 private:
  ValueId Ints(std::vector<std::int32_t> values) { return Constant(Tensor::IntVector(std::move(values))); }

  /// Such that a layer keeps the size of its input's values.
  ValueId Weights(Shape shape, std::int64_t fanIn) {
    std::normal_distribution<float> normal(0.0F, std::sqrt(2.0F / static_cast<float>(fanIn)));
    std::vector<float> data(static_cast<std::size_t>(ElementCount(shape)));
    for (float& value : data) value = normal(random_);
    return Constant(Tensor::Floats(std::move(shape), std::move(data)));
  }

  program::Program program_;
  std::mt19937 random_{1};
};

/// 3x3 convolutions with ReLU between them, all of the same number of channels.
inline program::Program ConvolutionStack(int layers, std::int64_t channels, std::int64_t size, bool rewrite = true) {
  NetworkWriter net;
  ValueId x = net.Input({1, channels, size, size});
  for (int i = 0; i < layers; ++i) {
    x = net.Conv(x, channels, channels, 3);
    if (i + 1 < layers) x = net.Relu(x);
  }
  return net.Finish(x, rewrite);
}

/// The half-resolution residual U-Net of the shipped models: blocks of two 3x3 convolutions with a skip, strided
/// convolutions down, transposed ones up and added, a pixel shuffle at the end and the image added to that.
inline program::Program ResidualUNet(const std::vector<std::int64_t>& widths, int blocks, std::int64_t height,
                                     std::int64_t width, bool rewrite = true) {
  NetworkWriter net;
  const ValueId image = net.Input({1, 3, height, width});
  const auto run = [&](ValueId x, std::int64_t channels) {
    for (int i = 0; i < blocks; ++i) {
      x = net.Add(x, net.Conv(net.Relu(net.Conv(x, channels, channels, 3)), channels, channels, 3));
    }
    return x;
  };
  ValueId x = net.Conv(image, 3, widths.front(), 2, 2);
  std::vector<ValueId> skips;
  for (std::size_t level = 0; level + 1 < widths.size(); ++level) {
    x = run(x, widths[level]);
    skips.push_back(x);
    x = net.Conv(x, widths[level], widths[level + 1], 2, 2);
  }
  x = run(x, widths.back());
  for (std::size_t level = widths.size() - 1; level-- > 0;) {
    x = net.Add(net.Up(x, widths[level + 1], widths[level]), skips[level]);
    x = run(x, widths[level]);
  }
  const ValueId residual = net.PixelShuffle(net.Conv(x, widths.front(), 12, 3), 2);
  return net.Finish(net.Add(image, residual), rewrite);
}

}  // namespace ulmora::engine::sample
