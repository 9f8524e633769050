// conv and conv_transpose over one to three spatial axes.

#include "engine/program/ops/Checks.h"
#include "engine/program/ops/ConvGeometry.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace ulmora::engine::program {
namespace {

using Axes = std::array<WindowAxis, 3>;
using Position = std::array<std::int64_t, 3>;

/// Both operations relate a coarse grid (the convolution's output, the transposed one's input) to a fine one by fine =
/// coarse * stride + k * dilation - padBefore.
struct Grids {
  Axes axes;  ///< leading axes of size 1 where there are fewer than three
  Position coarse{};
  Position fine{};
  Position kernel{};
};

Grids MakeGrids(const ConvGeometry& geometry, bool transposed) {
  Grids grids;
  grids.axes.fill({.output = 1});
  std::ranges::copy_backward(geometry.axes, grids.axes.end());
  for (std::size_t i = 0; i < 3; ++i) {
    const WindowAxis& axis = grids.axes[i];
    grids.coarse[i] = transposed ? axis.input : axis.output;
    grids.fine[i] = transposed ? axis.output : axis.input;
    grids.kernel[i] = axis.kernel;
  }
  return grids;
}

std::int64_t Count(const Position& dims) {
  return dims[0] * dims[1] * dims[2];
}

/// Calls visit(coarse offset, fine offset) for every pair that kernel element `k` connects; offsets within one channel.
template <typename Visit>
void VisitPairs(const Grids& grids, const Position& k, const Visit& visit) {
  const auto fineAt = [&](std::size_t axis, std::int64_t coarse) {
    return coarse * grids.axes[axis].stride + k[axis] * grids.axes[axis].dilation - grids.axes[axis].padBefore;
  };
  const auto inside = [&](std::size_t axis, std::int64_t fine) { return fine >= 0 && fine < grids.fine[axis]; };
  for (std::int64_t a = 0; a < grids.coarse[0]; ++a) {
    const std::int64_t fineA = fineAt(0, a);
    if (!inside(0, fineA)) continue;
    for (std::int64_t b = 0; b < grids.coarse[1]; ++b) {
      const std::int64_t fineB = fineAt(1, b);
      if (!inside(1, fineB)) continue;
      const std::int64_t coarseRow = (a * grids.coarse[1] + b) * grids.coarse[2];
      const std::int64_t fineRow = (fineA * grids.fine[1] + fineB) * grids.fine[2];
      for (std::int64_t c = 0; c < grids.coarse[2]; ++c) {
        const std::int64_t fineC = fineAt(2, c);
        if (inside(2, fineC)) visit(coarseRow + c, fineRow + fineC);
      }
    }
  }
}

/// Calls visit(position, row-major number) for every element of the kernel.
template <typename Visit>
void VisitKernel(const Position& kernel, const Visit& visit) {
  std::int64_t number = 0;
  for (std::int64_t a = 0; a < kernel[0]; ++a) {
    for (std::int64_t b = 0; b < kernel[1]; ++b) {
      for (std::int64_t c = 0; c < kernel[2]; ++c) visit(Position{a, b, c}, number++);
    }
  }
}

std::span<const float> Part(std::span<const float> data, std::int64_t number, std::int64_t size) {
  return data.subspan(static_cast<std::size_t>(number * size), static_cast<std::size_t>(size));
}

/// Sums in double of one channel of the result over all channels of x in its group. `weightAt(ci, co)` numbers the
/// kernel of a channel of x and a channel of the result, both counted over all groups.
template <typename WeightAt>
std::vector<Tensor> Evaluate(const OpCall& call, const ConvGeometry& geometry, bool transposed,
                             const WeightAt& weightAt) {
  const Grids grids = MakeGrids(geometry, transposed);
  const std::span<const float> x = call.Value("x").floats();
  const std::span<const float> weight = call.Value("weight").floats();
  const std::int64_t inputSize = Count(transposed ? grids.coarse : grids.fine);
  const std::int64_t outputSize = Count(transposed ? grids.fine : grids.coarse);
  const std::int64_t groupInputs = geometry.inputChannels / geometry.groups;
  const std::int64_t groupOutputs = geometry.outputChannels / geometry.groups;
  std::vector<float> result;
  std::vector<double> sums(static_cast<std::size_t>(outputSize));
  for (std::int64_t n = 0; n < geometry.batch; ++n) {
    for (std::int64_t co = 0; co < geometry.outputChannels; ++co) {
      const std::int64_t group = co / groupOutputs;
      const double bias = call.Has("bias") ? call.Value("bias").floats()[static_cast<std::size_t>(co)] : 0.0F;
      std::ranges::fill(sums, bias);
      for (std::int64_t ci = 0; ci < groupInputs; ++ci) {
        const std::int64_t channel = group * groupInputs + ci;
        const std::span<const float> plane = Part(x, n * geometry.inputChannels + channel, inputSize);
        const std::span<const float> kernel = Part(weight, weightAt(channel, co), Count(grids.kernel));
        VisitKernel(grids.kernel, [&](const Position& k, std::int64_t number) {
          const double factor = kernel[static_cast<std::size_t>(number)];
          VisitPairs(grids, k, [&](std::int64_t coarse, std::int64_t fine) {
            const auto from = static_cast<std::size_t>(transposed ? coarse : fine);
            const auto to = static_cast<std::size_t>(transposed ? fine : coarse);
            sums[to] += factor * plane[from];
          });
        });
      }
      for (const double sum : sums) result.push_back(static_cast<float>(sum));
    }
  }
  return {Tensor::Floats(geometry.OutputShape(), std::move(result), call.Type("x").element)};
}

std::vector<TensorType> InferConv(const OpCall& call) {
  return {{call.Type("x").element, ResolveConv(call).OutputShape()}};
}

std::vector<Tensor> EvaluateConv(const OpCall& call) {
  const ConvGeometry geometry = ResolveConv(call);
  const std::int64_t groupInputs = geometry.inputChannels / geometry.groups;
  return Evaluate(call, geometry, false,
                  [&](std::int64_t channel, std::int64_t co) { return co * groupInputs + channel % groupInputs; });
}

std::vector<TensorType> InferConvTranspose(const OpCall& call) {
  return {{call.Type("x").element, ResolveConvTranspose(call).OutputShape()}};
}

std::vector<Tensor> EvaluateConvTranspose(const OpCall& call) {
  const ConvGeometry geometry = ResolveConvTranspose(call);
  const std::int64_t groupOutputs = geometry.outputChannels / geometry.groups;
  return Evaluate(call, geometry, true,
                  [&](std::int64_t channel, std::int64_t co) { return channel * groupOutputs + co % groupOutputs; });
}

}  // namespace

std::vector<OpDefinition> ConvOps() {
  std::vector<Parameter> parameters = {Required("x"),
                                       Required("weight"),
                                       Optional("bias"),
                                       OptionalConstant("strides"),
                                       OptionalConstant("pad_type", Tensor::Text("valid")),
                                       OptionalConstant("pad"),
                                       OptionalConstant("dilations"),
                                       OptionalConstant("groups", Tensor::Int(1))};
  OpDefinition conv = {"conv", parameters, InferConv, EvaluateConv, true};
  parameters.push_back(OptionalConstant("output_shape"));
  OpDefinition transposed = {"conv_transpose", std::move(parameters), InferConvTranspose, EvaluateConvTranspose, true};
  return {std::move(conv), std::move(transposed)};
}

}  // namespace ulmora::engine::program
