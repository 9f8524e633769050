// crop_resize: boxes of images, resized bilinearly.

#include "engine/Limits.h"
#include "engine/program/ShapeMath.h"
#include "engine/program/ops/BlockGrid.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/ImageSampler.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/ResizeGrid.h"

#include <cmath>
#include <string>

namespace ulmora::engine::program {
namespace {

/// First opset in which what lies outside of the image is pad_value; before, the outermost pixels go on.
constexpr int kPaddingOpset = 6;
/// First opset with boxes [N, 4] and box_indices [N] instead of roi [N, 1, 4 or 5, 1, 1].
constexpr int kBoxesOpset = 7;

/// A box along one axis, in pixels: both ends belong to it.
struct Range {
  double start = 0.0;
  double end = 0.0;
};

struct Box {
  std::int64_t image = 0;
  Range rows;
  Range columns;
};

struct BoxLayout {
  bool isHeightFirst;
  bool isCentre;
};

BoxLayout LayoutOf(const OpCall& call) {
  const std::string mode = call.Text("box_coordinate_mode");
  if (mode == "CORNERS_HEIGHT_FIRST") return {true, false};
  if (mode == "CORNERS_WIDTH_FIRST") return {false, false};
  if (mode == "CENTER_SIZE_HEIGHT_FIRST") return {true, true};
  if (mode == "CENTER_SIZE_WIDTH_FIRST") return {false, true};
  call.Fail("box_coordinate_mode is '" + mode +
            "', expected CORNERS_HEIGHT_FIRST, CORNERS_WIDTH_FIRST, CENTER_SIZE_HEIGHT_FIRST or "
            "CENTER_SIZE_WIDTH_FIRST");
}

bool HasBoxes(const OpCall& call) {
  return call.opset() >= kBoxesOpset;
}

/// True if each box names its image; otherwise all boxes are cut out of all images.
bool NamesImages(const OpCall& call) {
  return HasBoxes(call) || call.ShapeOf("roi")[2] == 5;
}

std::vector<TensorType> InferCropResize(const OpCall& call) {
  RequireFloats(call, "x");
  RequireRank(call, "x", 4, 4);
  const Shape& x = call.ShapeOf("x");
  if (CountElements(call, x) == 0) call.Fail("x has shape " + ToString(x) + ", expected elements to sample");
  const std::int64_t height = call.Int("target_height");
  const std::int64_t width = call.Int("target_width");
  if (height < 1 || width < 1) call.Fail("the target size is " + ToString({height, width}) + ", expected at least 1");
  static_cast<void>(LayoutOf(call));
  static_cast<void>(GridOf(call));
  static_cast<void>(call.Float("spatial_scale"));
  static_cast<void>(call.Bool("normalized_coordinates"));
  static_cast<void>(call.Float("pad_value"));

  const std::string_view boxes = HasBoxes(call) ? "boxes" : "roi";
  RequireNumbers(call, boxes);
  RequireRank(call, boxes, HasBoxes(call) ? 2 : 5, HasBoxes(call) ? 2 : 5);
  const Shape& shape = call.ShapeOf(boxes);
  if (HasBoxes(call)) {
    RequireShape(call, "boxes", {shape[0], 4});
    if (call.Has("box_indices")) {
      RequireInts(call, "box_indices");
      RequireShape(call, "box_indices", {shape[0]});
    }
    return {{call.Type("x").element, {shape[0], x[1], height, width}}};
  }
  RequireShape(call, "roi", {shape[0], 1, shape[2] == 5 ? 5 : 4, 1, 1});
  return {{call.Type("x").element, {shape[0], NamesImages(call) ? 1 : x[0], x[1], height, width}}};
}

/// Box number `number`; of an image that it does not name, `image` is 0.
Box BoxAt(const OpCall& call, std::int64_t number) {
  const Tensor& boxes = call.Value(HasBoxes(call) ? "boxes" : "roi");
  const bool inside = !HasBoxes(call) && NamesImages(call);
  const auto first = static_cast<std::size_t>(number * (inside ? 5 : 4));
  Box box;
  if (inside) {
    const double image = NumberAt(boxes, first);
    box.image = image >= 0.0 && image < limits::kMaxTensorElements ? static_cast<std::int64_t>(image) : -1;
  }
  if (HasBoxes(call)) {
    box.image = call.Has("box_indices") ? call.Value("box_indices").ints()[static_cast<std::size_t>(number)] : number;
  }
  const Shape& x = call.ShapeOf("x");
  if (box.image < 0 || box.image >= x[0]) {
    call.Fail("box " + std::to_string(number) + " is one of image " + std::to_string(box.image) + ", but there are " +
              std::to_string(x[0]));
  }
  const BoxLayout layout = LayoutOf(call);
  const double scale = static_cast<double>(call.Float("spatial_scale"));
  const bool normalized = call.Bool("normalized_coordinates");
  const auto range = [&](std::size_t axis, std::int64_t size) {
    const double unit = scale * (normalized ? static_cast<double>(size - 1) : 1.0);
    const double a = NumberAt(boxes, first + (inside ? 1 : 0) + axis) * unit;
    const double b = NumberAt(boxes, first + (inside ? 1 : 0) + axis + 2) * unit;
    // The package format does not say where a box of a size ends: half of it lies on either side of the centre.
    return layout.isCentre ? Range{a - b / 2.0, a + b / 2.0} : Range{a, b};
  };
  box.rows = range(layout.isHeightFirst ? 0 : 1, x[2]);
  box.columns = range(layout.isHeightFirst ? 1 : 0, x[3]);
  return box;
}

/// Positions of `count` samples over the range, in pixels.
std::vector<double> PositionsOver(const Range& range, std::int64_t count, SamplingGrid grid) {
  std::vector<double> positions;
  for (std::int64_t i = 0; i < count; ++i) {
    const double step =
        GridPosition(grid, range.end - range.start + 1.0, static_cast<double>(count), static_cast<double>(i));
    positions.push_back(range.start + step);
  }
  return positions;
}

std::vector<Tensor> EvaluateCropResize(const OpCall& call) {
  const TensorType type = InferCropResize(call).front();
  const Tensor& x = call.Value("x");
  const ImageSampler sampler(x, OutsideImage::Border, 0.0);
  const bool pads = call.opset() >= kPaddingOpset;
  const float padding = call.Float("pad_value");
  const SamplingGrid grid = GridOf(call);
  const auto isOutside = [&](double position, std::size_t axis) {
    return pads && !(position >= 0.0 && position <= static_cast<double>(x.shape()[axis] - 1));
  };
  const Shape tail = {type.shape.end() - 3, type.shape.end()};
  const std::int64_t images = type.shape.size() == 5 ? type.shape[1] : 1;
  std::vector<float> result;
  for (std::int64_t number = 0; number < type.shape[0]; ++number) {
    const Box box = BoxAt(call, number);
    const std::vector<double> rows = PositionsOver(box.rows, tail[1], grid);
    const std::vector<double> columns = PositionsOver(box.columns, tail[2], grid);
    for (std::int64_t image = 0; image < images; ++image) {
      const std::int64_t source = NamesImages(call) ? box.image : image;
      for (std::int64_t c = 0; c < tail[0]; ++c) {
        for (const double row : rows) {
          for (const double column : columns) {
            const bool outside = isOutside(row, 2) || isOutside(column, 3);
            result.push_back(outside ? padding : static_cast<float>(sampler.Linear(source, c, row, column)));
          }
        }
      }
    }
  }
  return {Tensor::Floats(type.shape, std::move(result), type.element)};
}

}  // namespace

std::vector<OpDefinition> CropResizeOps() {
  return {
      {"crop_resize",
       {Required("x"), Optional("roi"), Optional("boxes"), Optional("box_indices"),
        OptionalConstant("target_height", Tensor::Int(1)), OptionalConstant("target_width", Tensor::Int(1)),
        OptionalConstant("normalized_coordinates", Tensor::Bool(false)),
        OptionalConstant("spatial_scale", Tensor::Float(1.0F)),
        OptionalConstant("box_coordinate_mode", Tensor::Text("CORNERS_HEIGHT_FIRST")),
        OptionalConstant("sampling_mode", Tensor::Text("DEFAULT")), OptionalConstant("pad_value", Tensor::Float(0.0F))},
       InferCropResize,
       EvaluateCropResize}};
}

}  // namespace ulmora::engine::program
