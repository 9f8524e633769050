// resample and affine: images read at given positions, or at those of a turned and scaled grid.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/BlockGrid.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/ImageSampler.h"
#include "engine/program/ops/Parameters.h"

#include <functional>
#include <string>

namespace ulmora::engine::program {
namespace {

/// How coordinates count. Normalised ones reach from the centres of the outermost pixels with align_corners, else from
/// their edges.
enum class Coordinates : std::uint8_t { Pixels, MinusOneToOne, ZeroToOne };

struct Options {
  Coordinates coordinates;
  bool alignCorners;
  bool nearest;
  OutsideImage outside;
};

Coordinates CoordinatesOf(const OpCall& call) {
  const std::string mode = call.Text("coordinates_mode");
  if (mode == "unnormalized") return Coordinates::Pixels;
  if (mode == "normalized_minus_one_to_one") return Coordinates::MinusOneToOne;
  if (mode == "normalized_zero_to_one") return Coordinates::ZeroToOne;
  call.Fail("coordinates_mode is '" + mode +
            "', expected unnormalized, normalized_minus_one_to_one or normalized_zero_to_one");
}

OutsideImage OutsideOf(const OpCall& call) {
  const std::string mode = call.Text("padding_mode");
  if (mode == "constant") return OutsideImage::Constant;
  if (mode == "border") return OutsideImage::Border;
  if (mode == "reflection") return OutsideImage::Reflected;
  if (mode == "symmetric") return OutsideImage::Symmetric;
  call.Fail("padding_mode is '" + mode + "', expected constant, border, reflection or symmetric");
}

Options OptionsOf(const OpCall& call) {
  const std::string mode = call.Text("sampling_mode");
  if (mode != "bilinear" && mode != "nearest") {
    call.Fail("sampling_mode is '" + mode + "', expected bilinear or nearest");
  }
  return {CoordinatesOf(call), call.Bool("align_corners"), mode == "nearest", OutsideOf(call)};
}

/// A coordinate along an axis of `size` pixels, counted in pixels from the centre of the first.
double InPixels(const Options& options, double coordinate, std::int64_t size) {
  const auto pixels = static_cast<double>(size);
  if (options.coordinates == Coordinates::Pixels) return coordinate;
  const double share = options.coordinates == Coordinates::ZeroToOne ? coordinate : (coordinate + 1.0) / 2.0;
  return options.alignCorners ? share * (pixels - 1.0) : share * pixels - 0.5;
}

/// The coordinate of pixel i of `size`: the inverse of InPixels. A single pixel lies in the middle, as in PyTorch.
double OfPixel(const Options& options, std::int64_t i, std::int64_t size) {
  const auto place = static_cast<double>(i);
  const auto pixels = static_cast<double>(size);
  if (options.coordinates == Coordinates::Pixels) return place;
  double share = options.alignCorners ? place / (pixels - 1.0) : (place + 0.5) / pixels;
  if (size == 1) share = 0.5;
  return options.coordinates == Coordinates::ZeroToOne ? share : 2.0 * share - 1.0;
}

void RequireImages(const OpCall& call) {
  RequireFloats(call, "x");
  RequireRank(call, "x", 4, 4);
  if (CountElements(call, call.ShapeOf("x")) == 0) {
    call.Fail("x has shape " + ToString(call.ShapeOf("x")) + ", expected elements to sample");
  }
  static_cast<void>(call.Float("padding_value"));
}

/// x and y of a sample, in pixels of the image.
struct Position {
  double row;
  double column;
};

/// A tensor of type `type` whose elements are x's at positionOf(n, row, column), the same for all channels.
Tensor Sample(const OpCall& call, const TensorType& type, const Options& options,
              const std::function<Position(std::int64_t, std::int64_t, std::int64_t)>& positionOf) {
  const ImageSampler sampler(call.Value("x"), options.outside, static_cast<double>(call.Float("padding_value")));
  std::vector<float> result;
  if (ElementCount(type.shape) > 0) {
    Shape at(4, 0);
    do {
      const Position position = positionOf(at[0], at[2], at[3]);
      const double sample = options.nearest ? sampler.Nearest(at[0], at[1], position.row, position.column)
                                            : sampler.Linear(at[0], at[1], position.row, position.column);
      result.push_back(static_cast<float>(sample));
    } while (NextIndex(at, type.shape));
  }
  return Tensor::Floats(type.shape, std::move(result), type.element);
}

/// coordinates [N, H, W, 2]: of each sample its x, then its y.
std::vector<TensorType> InferResample(const OpCall& call) {
  RequireImages(call);
  RequireNumbers(call, "coordinates");
  RequireRank(call, "coordinates", 4, 4);
  static_cast<void>(OptionsOf(call));
  const Shape& x = call.ShapeOf("x");
  const Shape& coordinates = call.ShapeOf("coordinates");
  RequireShape(call, "coordinates", {x[0], coordinates[1], coordinates[2], 2});
  return {{call.Type("x").element, {x[0], x[1], coordinates[1], coordinates[2]}}};
}

std::vector<Tensor> EvaluateResample(const OpCall& call) {
  const Options options = OptionsOf(call);
  const Tensor& coordinates = call.Value("coordinates");
  const std::vector<std::int64_t> strides = RowMajorStrides(coordinates.shape());
  const Shape& x = call.ShapeOf("x");
  const TensorType type = InferResample(call).front();
  return {Sample(call, type, options, [&](std::int64_t n, std::int64_t row, std::int64_t column) {
    const auto first = static_cast<std::size_t>(Offset({n, row, column, 0}, strides));
    return Position{InPixels(options, NumberAt(coordinates, first + 1), x[2]),
                    InPixels(options, NumberAt(coordinates, first), x[3])};
  })};
}

/// transform_matrix [N, 6] or [1, 6]: x' = a0 x + a1 y + a2, y' = b0 x + b1 y + b2.
std::vector<TensorType> InferAffine(const OpCall& call) {
  RequireImages(call);
  RequireFloats(call, "transform_matrix");
  static_cast<void>(OptionsOf(call));
  const Shape& x = call.ShapeOf("x");
  const Shape& matrix = call.ShapeOf("transform_matrix");
  if (matrix != Shape{1, 6} && matrix != Shape{x[0], 6}) {
    call.Fail("transform_matrix has shape " + ToString(matrix) + ", expected " + ToString({x[0], 6}) + " or [1, 6]");
  }
  const std::int64_t height = call.Int("output_height");
  const std::int64_t width = call.Int("output_width");
  if (height < 1 || width < 1) call.Fail("the output size is " + ToString({height, width}) + ", expected at least 1");
  return {{call.Type("x").element, {x[0], x[1], height, width}}};
}

std::vector<Tensor> EvaluateAffine(const OpCall& call) {
  const Options options = OptionsOf(call);
  const Tensor& matrix = call.Value("transform_matrix");
  const Shape& x = call.ShapeOf("x");
  const TensorType type = InferAffine(call).front();
  return {Sample(call, type, options, [&](std::int64_t n, std::int64_t row, std::int64_t column) {
    const auto first = static_cast<std::size_t>(matrix.shape()[0] == 1 ? 0 : 6 * n);
    const auto entry = [&](std::size_t i) { return static_cast<double>(matrix.floats()[first + i]); };
    const double across = OfPixel(options, column, type.shape[3]);
    const double down = OfPixel(options, row, type.shape[2]);
    return Position{InPixels(options, entry(3) * across + entry(4) * down + entry(5), x[2]),
                    InPixels(options, entry(0) * across + entry(1) * down + entry(2), x[3])};
  })};
}

}  // namespace

std::vector<OpDefinition> SamplingOps() {
  const std::vector<Parameter> modes = {RequiredConstant("sampling_mode"), RequiredConstant("padding_mode"),
                                        RequiredConstant("padding_value"), RequiredConstant("coordinates_mode"),
                                        RequiredConstant("align_corners")};
  std::vector<Parameter> affine = {Required("x"), Required("transform_matrix"), RequiredConstant("output_height"),
                                   RequiredConstant("output_width")};
  std::vector<Parameter> resample = {Required("x"), Required("coordinates")};
  affine.insert(affine.end(), modes.begin(), modes.end());
  resample.insert(resample.end(), modes.begin(), modes.end());
  return {{"affine", std::move(affine), InferAffine, EvaluateAffine},
          {"resample", std::move(resample), InferResample, EvaluateResample}};
}

}  // namespace ulmora::engine::program
