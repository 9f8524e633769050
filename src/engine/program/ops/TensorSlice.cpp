// slice_by_index, slice_by_size, reverse, crop: strided selections along each dimension.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/SliceAxes.h"
#include "engine/program/ops/Take.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program {
namespace {

std::vector<std::int64_t> IntPerDim(const OpCall& call, std::string_view parameter) {
  std::vector<std::int64_t> values = call.Ints(parameter);
  if (values.size() != call.ShapeOf("x").size()) {
    call.Fail(std::string(parameter) + " has " + std::to_string(values.size()) + " entries, but x has shape " +
              ToString(call.ShapeOf("x")));
  }
  return values;
}

std::vector<bool> MaskPerDim(const OpCall& call, std::string_view parameter) {
  const std::size_t rank = call.ShapeOf("x").size();
  if (!call.Has(parameter)) return std::vector<bool>(rank, false);
  std::vector<bool> mask = call.Bools(parameter);
  if (mask.size() != rank) {
    call.Fail(std::string(parameter) + " has " + std::to_string(mask.size()) + " entries, but x has shape " +
              ToString(call.ShapeOf("x")));
  }
  return mask;
}

/// One bound of a slice: absent if the mask opens it.
using Bound = std::optional<std::int64_t>;

/// x[begin:end:stride] of numpy along a dimension of `size`: negative bounds count from the end, bounds beyond it are
/// clamped, an open bound is the first or last element in the direction of the stride.
SliceAxis NumpySlice(Bound begin, Bound end, std::int64_t stride, std::int64_t size) {
  const std::int64_t least = stride > 0 ? 0 : -1;
  const std::int64_t most = stride > 0 ? size : size - 1;
  const auto resolve = [&](Bound bound, std::int64_t open) {
    return bound ? std::clamp(*bound < 0 ? *bound + size : *bound, least, most) : open;
  };
  const std::int64_t first = resolve(begin, stride > 0 ? least : most);
  const std::int64_t stop = resolve(end, stride > 0 ? most : least);
  const std::int64_t distance = stride > 0 ? stop - first : first - stop;
  const std::int64_t step = stride > 0 ? stride : -stride;
  const std::int64_t count = distance > 0 ? (distance + step - 1) / step : 0;
  return {count > 0 ? first : 0, stride, count};
}

std::vector<SliceAxis> AxesByIndex(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  const std::vector<std::int64_t> begin = IntPerDim(call, "begin");
  const std::vector<std::int64_t> end = IntPerDim(call, "end");
  const std::vector<std::int64_t> stride =
      call.Has("stride") ? IntPerDim(call, "stride") : std::vector<std::int64_t>(x.size(), 1);
  const std::vector<bool> beginMask = MaskPerDim(call, "begin_mask");
  const std::vector<bool> endMask = MaskPerDim(call, "end_mask");
  const std::vector<bool> squeezeMask = MaskPerDim(call, "squeeze_mask");
  std::vector<SliceAxis> axes;
  for (std::size_t i = 0; i < x.size(); ++i) {
    if (stride[i] == 0) call.Fail("stride of dimension " + std::to_string(i) + " is 0");
    const Bound first = beginMask[i] ? Bound{} : Bound{begin[i]};
    if (!squeezeMask[i]) {
      axes.push_back(NumpySlice(first, endMask[i] ? Bound{} : Bound{end[i]}, stride[i], x[i]));
      continue;
    }
    const std::int64_t index = first.value_or(0) < 0 ? *first + x[i] : first.value_or(0);
    if (index < 0 || index >= x[i]) {
      call.Fail("index " + std::to_string(begin[i]) + " is outside dimension " + std::to_string(i) + " of x " +
                ToString(x));
    }
    axes.push_back({index, 1, 1, true});
  }
  return axes;
}

std::vector<SliceAxis> AxesBySize(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  const std::vector<std::int64_t> begins = IntPerDim(call, "begin");
  const std::vector<std::int64_t> sizes = IntPerDim(call, "size");
  std::vector<SliceAxis> axes;
  for (std::size_t i = 0; i < x.size(); ++i) {
    const std::int64_t begin = begins[i] < 0 ? begins[i] + x[i] : begins[i];
    const std::int64_t size = sizes[i] == -1 ? x[i] - begin : sizes[i];
    if (begin < 0 || size < 0 || size > x[i] - begin) {
      call.Fail("begin " + std::to_string(begins[i]) + " and size " + std::to_string(sizes[i]) +
                " do not lie in dimension " + std::to_string(i) + " of x " + ToString(x));
    }
    axes.push_back({begin, 1, size});
  }
  return axes;
}

std::vector<SliceAxis> AxesReversed(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  std::vector<bool> reversed(x.size(), !call.Has("axes"));
  if (call.Has("axes")) {
    for (const std::int64_t axis : call.Ints("axes")) {
      reversed[static_cast<std::size_t>(call.Axis(axis, x.size()))] = true;
    }
  }
  std::vector<SliceAxis> axes;
  for (std::size_t i = 0; i < x.size(); ++i) {
    axes.push_back(reversed[i] && x[i] > 0 ? SliceAxis{x[i] - 1, -1, x[i]} : SliceAxis{0, 1, x[i]});
  }
  return axes;
}

SliceAxis CropAxis(const OpCall& call, std::string_view parameter, std::int64_t size) {
  const std::vector<std::int64_t> amounts = IntsOr(call, parameter, 2, 0, 0);
  if (amounts[0] + amounts[1] >= size) {
    call.Fail(std::string(parameter) + " " + ToString(amounts) + " leaves nothing of " + std::to_string(size) +
              " elements");
  }
  return {amounts[0], 1, size - amounts[0] - amounts[1]};
}

std::vector<SliceAxis> AxesCropped(const OpCall& call) {
  RequireRank(call, "x", 4, 4);
  const Shape& x = call.ShapeOf("x");
  return {{0, 1, x[0]}, {0, 1, x[1]}, CropAxis(call, "crop_height", x[2]), CropAxis(call, "crop_width", x[3])};
}

std::vector<TensorType> InferSlice(const OpCall& call) {
  RequireData(call, "x");
  Shape shape;
  for (const SliceAxis& axis : SliceAxes(call)) {
    if (!axis.squeezed) shape.push_back(axis.count);
  }
  return {{call.Type("x").element, shape}};
}

std::vector<Tensor> EvaluateSlice(const OpCall& call) {
  const std::vector<SliceAxis> axes = SliceAxes(call);
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("x"));
  return {Take(call.Value("x"), InferSlice(call).front().shape,
               [&](const Shape& index) { return SliceOffset(axes, strides, index); })};
}

}  // namespace

std::int64_t SliceOffset(const std::vector<SliceAxis>& axes, const std::vector<std::int64_t>& strides,
                         const Shape& index) noexcept {
  std::int64_t offset = 0;
  std::size_t kept = 0;
  for (std::size_t i = 0; i < axes.size(); ++i) {
    const std::int64_t step = axes[i].squeezed ? 0 : index[kept++];
    offset += (axes[i].begin + step * axes[i].stride) * strides[i];
  }
  return offset;
}

std::vector<SliceAxis> SliceAxes(const OpCall& call) {
  const std::string_view key = call.definition().key;
  if (key == "slice_by_index" || key == "slice_update") return AxesByIndex(call);
  if (key == "slice_by_size") return AxesBySize(call);
  return key == "crop" ? AxesCropped(call) : AxesReversed(call);
}

std::vector<OpDefinition> SliceOps() {
  return {{"slice_by_index",
           {Required("x"), Required("begin"), Required("end"), OptionalConstant("stride"),
            OptionalConstant("begin_mask"), OptionalConstant("end_mask"), OptionalConstant("squeeze_mask")},
           InferSlice,
           EvaluateSlice},
          {"slice_by_size", {Required("x"), Required("begin"), Required("size")}, InferSlice, EvaluateSlice},
          {"reverse", {Required("x"), OptionalConstant("axes")}, InferSlice, EvaluateSlice},
          {"crop",
           {Required("x"), RequiredConstant("crop_height"), RequiredConstant("crop_width")},
           InferSlice,
           EvaluateSlice}};
}

}  // namespace ulmora::engine::program
