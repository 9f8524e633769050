// upsample_nearest_neighbor, upsample_bilinear, resize_nearest_neighbor, resize_bilinear, resize: separable resampling.

#include "engine/Limits.h"
#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/ResizeGrid.h"

#include <cmath>
#include <string>

namespace ulmora::engine::program {
namespace {

/// floor(size * factor). Converters write factors that were divided and rounded, so that the product may miss the
/// intended integer; the size that the package declares for the result is believed if it is the next one.
std::int64_t ScaledSize(const OpCall& call, std::string_view parameter, std::size_t axis) {
  const std::int64_t size = call.ShapeOf("x")[axis];
  const Tensor& value = call.Value(parameter);
  const double factor = value.storage() == Storage::Int ? static_cast<double>(call.Int(parameter))
                                                        : static_cast<double>(call.Float(parameter));
  const double scaled = static_cast<double>(size) * factor;
  if (!(scaled >= 1.0) || scaled > static_cast<double>(limits::kMaxTensorElements)) {
    call.Fail(std::string(parameter) + " " + std::to_string(factor) + " makes " + std::to_string(scaled) + " of " +
              std::to_string(size) + " elements");
  }
  const auto floored = static_cast<std::int64_t>(std::floor(scaled));
  const std::optional<Shape> declared = call.DeclaredShape();
  if (declared && declared->size() > axis && std::abs((*declared)[axis] - floored) == 1) return (*declared)[axis];
  return floored;
}

std::int64_t TargetSize(const OpCall& call, std::string_view parameter) {
  const std::int64_t size = call.Int(parameter);
  if (size < 1 || size > limits::kMaxTensorElements) {
    call.Fail(std::string(parameter) + " is " + std::to_string(size) + ", expected at least 1");
  }
  return size;
}

/// Height and width: the last two dimensions.
std::vector<ResizedAxis> Planar(const OpCall& call, std::int64_t height, std::int64_t width, SamplingGrid grid,
                                Interpolation interpolation) {
  const Shape& x = call.ShapeOf("x");
  const std::size_t last = x.size() - 1;
  return {{last - 1, x[last - 1], height, grid, interpolation}, {last, x[last], width, grid, interpolation}};
}

std::vector<ResizedAxis> UpsampleAxes(const OpCall& call, SamplingGrid grid, Interpolation interpolation) {
  const std::size_t rank = call.ShapeOf("x").size();
  return Planar(call, ScaledSize(call, "scale_factor_height", rank - 2),
                ScaledSize(call, "scale_factor_width", rank - 1), grid, interpolation);
}

SamplingGrid UpsampleGrid(const OpCall& call) {
  const bool align = call.Bool("align_corners");
  const bool half = call.Has("half_pixel_centers") ? call.Bool("half_pixel_centers") : !align;
  if (align && half) call.Fail("align_corners and half_pixel_centers exclude each other");
  if (align) return SamplingGrid::StrictAlignCorners;
  return half ? SamplingGrid::UnalignCorners : SamplingGrid::Default;
}

std::vector<ResizedAxis> TargetAxes(const OpCall& call, SamplingGrid grid, Interpolation interpolation) {
  return Planar(call, TargetSize(call, "target_size_height"), TargetSize(call, "target_size_width"), grid,
                interpolation);
}

std::vector<ResizedAxis> ResizeAxes(const OpCall& call) {
  const std::string mode = call.Text("interpolation_mode");
  if (mode != "LINEAR" && mode != "NEAREST_NEIGHBOR") {
    call.Fail("interpolation_mode is '" + mode + "', expected LINEAR or NEAREST_NEIGHBOR");
  }
  const SamplingGrid grid = GridOf(call);
  const Shape& x = call.ShapeOf("x");
  const std::vector<std::int64_t> sizes = call.Ints("shape");
  const std::int64_t dims = call.Int("resized_dims");
  if (dims < 1 || std::cmp_greater(dims, x.size()) || std::cmp_greater(dims, sizes.size())) {
    call.Fail("resized_dims is " + std::to_string(dims) + ", but x has rank " + std::to_string(x.size()) +
              " and shape has " + std::to_string(sizes.size()) + " entries");
  }
  std::vector<ResizedAxis> axes;
  for (auto fromRight = static_cast<std::size_t>(dims); fromRight > 0; --fromRight) {
    const std::size_t axis = x.size() - fromRight;
    const std::int64_t size = sizes[sizes.size() - fromRight];
    if (size < 0) call.Fail("shape has an entry " + std::to_string(size) + ", expected at least 0");
    axes.push_back({axis, x[axis], size == 0 ? x[axis] : size, grid,
                    mode == "LINEAR" ? Interpolation::Linear : Interpolation::NearestRounded});
  }
  return axes;
}

std::vector<TensorType> InferResize(const OpCall& call) {
  RequireFloats(call, "x");
  if (call.ShapeOf("x").size() < 2) {
    call.Fail("x has shape " + ToString(call.ShapeOf("x")) + ", expected rank 2 or more");
  }
  TensorType type = call.Type("x");
  for (const ResizedAxis& axis : ResizedAxes(call)) {
    if (axis.input < 1) call.Fail("x has shape " + ToString(call.ShapeOf("x")) + ", expected elements to sample");
    type.shape[axis.axis] = axis.output;
  }
  return {type};
}

/// Resamples `values`, a dense tensor of shape `shape`, along one axis, and makes `shape` that of the result.
std::vector<double> ResampleAxis(const std::vector<double>& values, Shape& shape, const ResizedAxis& axis) {
  const std::vector<std::int64_t> strides = RowMajorStrides(shape);
  shape[axis.axis] = axis.output;
  std::vector<double> result;
  if (ElementCount(shape) == 0) return result;
  result.reserve(static_cast<std::size_t>(ElementCount(shape)));
  Shape index(shape.size(), 0);
  do {
    const Tap tap = TapAt(axis, index[axis.axis]);
    const std::int64_t start = Offset(index, strides) - index[axis.axis] * strides[axis.axis];
    const double lower = values[static_cast<std::size_t>(start + tap.lower * strides[axis.axis])];
    const double upper = values[static_cast<std::size_t>(start + tap.upper * strides[axis.axis])];
    // Without the test, a NaN or infinity beside the sample would leak into it.
    result.push_back(tap.weight == 0.0 ? lower : lower * (1.0 - tap.weight) + upper * tap.weight);
  } while (NextIndex(index, shape));
  return result;
}

std::vector<Tensor> EvaluateResize(const OpCall& call) {
  const Tensor& x = call.Value("x");
  Shape shape = x.shape();
  std::vector<double> values(x.floats().begin(), x.floats().end());
  for (const ResizedAxis& axis : ResizedAxes(call)) values = ResampleAxis(values, shape, axis);
  return {Tensor::Floats(shape, {values.begin(), values.end()}, x.element())};
}

Parameter Scale(std::string_view name) {
  return OptionalConstant(name, Tensor::Int(1));
}

}  // namespace

SamplingGrid GridOf(const OpCall& call) {
  const std::string mode = call.Text("sampling_mode");
  if (mode == "DEFAULT") return SamplingGrid::Default;
  if (mode == "STRICT_ALIGN_CORNERS") return SamplingGrid::StrictAlignCorners;
  if (mode == "ALIGN_CORNERS") return SamplingGrid::AlignCorners;
  if (mode == "OFFSET_CORNERS") return SamplingGrid::OffsetCorners;
  if (mode == "UNALIGN_CORNERS") return SamplingGrid::UnalignCorners;
  call.Fail("sampling_mode is '" + mode +
            "', expected DEFAULT, STRICT_ALIGN_CORNERS, ALIGN_CORNERS, OFFSET_CORNERS or UNALIGN_CORNERS");
}

std::vector<ResizedAxis> ResizedAxes(const OpCall& call) {
  const std::string_view key = call.definition().key;
  if (key == "upsample_nearest_neighbor") {
    return UpsampleAxes(call, SamplingGrid::Default, Interpolation::NearestFloor);
  }
  if (key == "upsample_bilinear") return UpsampleAxes(call, UpsampleGrid(call), Interpolation::Linear);
  // The package format does not say how this one rounds; PyTorch's nearest takes the floor.
  if (key == "resize_nearest_neighbor") return TargetAxes(call, SamplingGrid::Default, Interpolation::NearestFloor);
  if (key == "resize_bilinear") {
    return TargetAxes(call, GridOf(call), Interpolation::Linear);
  }
  return ResizeAxes(call);
}

std::vector<OpDefinition> ResizeOps() {
  return {{"upsample_nearest_neighbor",
           {Required("x"), Scale("scale_factor_height"), Scale("scale_factor_width")},
           InferResize,
           EvaluateResize},
          {"upsample_bilinear",
           {Required("x"), Scale("scale_factor_height"), Scale("scale_factor_width"),
            OptionalConstant("align_corners", Tensor::Bool(true)), OptionalConstant("half_pixel_centers")},
           InferResize,
           EvaluateResize},
          {"resize_nearest_neighbor",
           {Required("x"), RequiredConstant("target_size_height"), RequiredConstant("target_size_width")},
           InferResize,
           EvaluateResize},
          {"resize_bilinear",
           {Required("x"), OptionalConstant("target_size_height", Tensor::Int(1)),
            OptionalConstant("target_size_width", Tensor::Int(1)),
            OptionalConstant("sampling_mode", Tensor::Text("DEFAULT"))},
           InferResize,
           EvaluateResize},
          {"resize",
           {Required("x"), Required("shape"), RequiredConstant("resized_dims"),
            OptionalConstant("interpolation_mode", Tensor::Text("LINEAR")),
            OptionalConstant("sampling_mode", Tensor::Text("DEFAULT"))},
           InferResize,
           EvaluateResize}};
}

}  // namespace ulmora::engine::program
