#include "engine/program/ops/ConvGeometry.h"

#include "engine/Limits.h"
#include "engine/program/ops/Checks.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program {
namespace {

/// Pads of an axis are read only for pad_type custom; the others follow from the sizes.
enum class PadType : std::uint8_t { Valid, Same, SameLower, Custom };

PadType ReadPadType(const OpCall& call) {
  const std::string text = call.Text("pad_type");
  if (text == "valid") return PadType::Valid;
  if (text == "same") return PadType::Same;
  if (text == "same_lower") return PadType::SameLower;
  if (text == "custom") return PadType::Custom;
  call.Fail("pad_type is '" + text + "', expected valid, same, same_lower or custom");
}

/// Which dimension of the weight runs over the channels of x; the other one runs over those of the result.
struct WeightLayout {
  std::size_t input;
  std::size_t output;
};

std::string GroupsNote(std::int64_t groups) {
  return " (groups=" + std::to_string(groups) + ")";
}

void CheckChannels(const OpCall& call, const ConvGeometry& geometry, std::int64_t found, std::int64_t expected,
                   std::int64_t shared) {
  if (shared % geometry.groups != 0) {
    call.Fail("weight has shape " + ToString(call.ShapeOf("weight")) + ", its " + std::to_string(shared) +
              " channels cannot be divided into " + std::to_string(geometry.groups) + " groups");
  }
  if (found != expected) {
    call.Fail("weight has " + std::to_string(found) + " input channels, expected " + std::to_string(expected) +
              GroupsNote(geometry.groups));
  }
}

/// Everything that is read in the same way for both directions; channels of the result and outputs are left open.
ConvGeometry ReadCommon(const OpCall& call) {
  RequireFloats(call, "x");
  RequireFloats(call, "weight");
  RequireRank(call, "x", 3, 5);
  const Shape& x = call.ShapeOf("x");
  const Shape& weight = call.ShapeOf("weight");
  RequireRank(call, "weight", x.size(), x.size());
  if (ElementCount(x) == 0) call.Fail("x has shape " + ToString(x) + " without elements");
  if (ElementCount(weight) == 0) call.Fail("weight has shape " + ToString(weight) + " without elements");

  ConvGeometry geometry;
  geometry.batch = x[0];
  geometry.inputChannels = x[1];
  geometry.groups = call.Int("groups");
  if (geometry.groups < 1) call.Fail("groups is " + std::to_string(geometry.groups) + ", expected at least 1");

  const std::size_t spatial = x.size() - 2;
  const std::vector<std::int64_t> strides = IntsOr(call, "strides", spatial, 1, 1);
  const std::vector<std::int64_t> dilations = IntsOr(call, "dilations", spatial, 1, 1);
  std::vector<std::int64_t> pads(2 * spatial, 0);
  if (ReadPadType(call) == PadType::Custom) pads = IntsOr(call, "pad", 2 * spatial, 0, 0);
  for (std::size_t i = 0; i < spatial; ++i) {
    WindowAxis axis{x[2 + i], weight[2 + i], strides[i], dilations[i], pads[2 * i], pads[2 * i + 1], 0};
    // Beyond this no window could fit into a tensor, and sums of such sizes would come near overflow.
    if (axis.Span() > limits::kMaxTensorElements) {
      call.Fail("kernel " + std::to_string(axis.kernel) + " with dilation " + std::to_string(axis.dilation) +
                " along spatial axis " + std::to_string(i) + " is too large");
    }
    geometry.axes.push_back(axis);
  }
  return geometry;
}

void CheckBias(const OpCall& call, const ConvGeometry& geometry) {
  if (call.Has("bias")) RequireFloatVector(call, "bias", geometry.outputChannels);
}

void RequireOutput(const OpCall& call, const WindowAxis& axis, std::size_t number) {
  if (axis.output >= 1) return;
  call.Fail("kernel of span " + std::to_string(axis.Span()) + " leaves no output of " + std::to_string(axis.input) +
            " elements along spatial axis " + std::to_string(number) + " (padding " + std::to_string(axis.padBefore) +
            " and " + std::to_string(axis.padAfter) + ")");
}

/// The spatial part of output_shape, or nothing; its batch and channels must be those that follow anyway.
std::vector<std::int64_t> ReadOutputShape(const OpCall& call, const ConvGeometry& geometry) {
  if (!call.Has("output_shape")) return {};
  const std::vector<std::int64_t> shape = IntsOr(call, "output_shape", geometry.axes.size() + 2, 1, 1);
  if (shape[0] != geometry.batch || shape[1] != geometry.outputChannels) {
    call.Fail("output_shape is " + ToString(shape) + ", expected " + std::to_string(geometry.batch) + " and " +
              std::to_string(geometry.outputChannels) + " as its first entries");
  }
  return {shape.begin() + 2, shape.end()};
}

/// Cuts the full result (D - 1) * stride + span down (or up) to axis.output elements.
void CutTransposed(WindowAxis& axis, PadType padType) {
  const std::int64_t surplus = (axis.input - 1) * axis.stride + axis.Span() - axis.output;
  if (padType == PadType::Same || padType == PadType::SameLower) {
    const std::int64_t total = std::max<std::int64_t>(0, surplus);
    axis.padBefore = padType == PadType::SameLower ? total - total / 2 : total / 2;
  }
  axis.padAfter = surplus - axis.padBefore;
}

}  // namespace

Shape ConvGeometry::OutputShape() const {
  Shape shape = {batch, outputChannels};
  for (const WindowAxis& axis : axes) shape.push_back(axis.output);
  return shape;
}

ConvGeometry ResolveConv(const OpCall& call) {
  ConvGeometry geometry = ReadCommon(call);
  const Shape& weight = call.ShapeOf("weight");
  geometry.outputChannels = weight[0];
  if (geometry.inputChannels % geometry.groups != 0) {
    call.Fail("x has " + std::to_string(geometry.inputChannels) + " channels, which cannot be divided into " +
              std::to_string(geometry.groups) + " groups");
  }
  CheckChannels(call, geometry, weight[1], geometry.inputChannels / geometry.groups, geometry.outputChannels);
  CheckBias(call, geometry);
  const PadType padType = ReadPadType(call);
  for (std::size_t i = 0; i < geometry.axes.size(); ++i) {
    WindowAxis& axis = geometry.axes[i];
    if (padType == PadType::Same || padType == PadType::SameLower) {
      PadToSame(axis, padType == PadType::SameLower);
    } else {
      axis.output = WindowOutput(axis);
    }
    RequireOutput(call, axis, i);
  }
  return geometry;
}

ConvGeometry ResolveConvTranspose(const OpCall& call) {
  ConvGeometry geometry = ReadCommon(call);
  const Shape& weight = call.ShapeOf("weight");
  CheckChannels(call, geometry, weight[0], geometry.inputChannels, weight[0]);
  geometry.outputChannels = weight[1] * geometry.groups;
  CheckBias(call, geometry);
  const PadType padType = ReadPadType(call);
  const std::vector<std::int64_t> outputs = ReadOutputShape(call, geometry);
  for (std::size_t i = 0; i < geometry.axes.size(); ++i) {
    WindowAxis& axis = geometry.axes[i];
    if (!outputs.empty()) {
      axis.output = outputs[i];
    } else if (padType == PadType::Same || padType == PadType::SameLower) {
      axis.output = axis.input * axis.stride;
    } else {
      axis.output = (axis.input - 1) * axis.stride + axis.Span() - axis.padBefore - axis.padAfter;
    }
    RequireOutput(call, axis, i);
    CutTransposed(axis, padType);
  }
  return geometry;
}

}  // namespace ulmora::engine::program
