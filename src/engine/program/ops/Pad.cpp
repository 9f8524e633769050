// pad: a border around the last dimensions.

#include "engine/program/ShapeMath.h"
#include "engine/program/ops/Checks.h"
#include "engine/program/ops/Families.h"
#include "engine/program/ops/PadAxes.h"
#include "engine/program/ops/Parameters.h"
#include "engine/program/ops/Take.h"

#include <algorithm>
#include <string>

namespace ulmora::engine::program {
namespace {

void CheckAxis(const OpCall& call, const PadAxis& axis, PadMode mode, std::size_t number) {
  const std::string where = " of dimension " + std::to_string(number) + ", which has " + std::to_string(axis.size);
  const std::int64_t larger = std::max(axis.before, axis.after);
  const std::int64_t smaller = std::min(axis.before, axis.after);
  if (mode != PadMode::Constant && smaller < 0) {
    call.Fail("pad " + std::to_string(smaller) + where + " elements, is negative in another mode than constant");
  }
  if (mode == PadMode::Reflect && larger > std::max<std::int64_t>(0, axis.size - 1)) {
    call.Fail("pad " + std::to_string(larger) + where + " elements, has too few to reflect");
  }
  if (mode == PadMode::Replicate && larger > 0 && axis.size == 0) {
    call.Fail("pad " + std::to_string(larger) + where + " elements, has none to replicate");
  }
  if (axis.size + axis.before + axis.after < 0) {
    call.Fail("pads " + std::to_string(axis.before) + " and " + std::to_string(axis.after) + where +
              " elements, cut off more than there is");
  }
}

std::vector<TensorType> InferPad(const OpCall& call) {
  RequireData(call, "x");
  Shape shape;
  for (const PadAxis& axis : PadAxes(call)) shape.push_back(axis.size + axis.before + axis.after);
  return {{call.Type("x").element, shape}};
}

std::vector<Tensor> EvaluatePad(const OpCall& call) {
  const std::vector<PadAxis> axes = PadAxes(call);
  const PadMode mode = ModeOfPad(call);
  const std::vector<std::int64_t> strides = RowMajorStrides(call.ShapeOf("x"));
  const auto source = [&](const Shape& index) {
    std::int64_t offset = 0;
    for (std::size_t i = 0; i < axes.size(); ++i) {
      const std::int64_t element = PadSource(axes[i], mode, index[i]);
      if (element < 0) return kFill;
      offset += element * strides[i];
    }
    return offset;
  };
  return {Take(call.Value("x"), InferPad(call).front().shape, source, call.Float("constant_val"))};
}

}  // namespace

PadMode ModeOfPad(const OpCall& call) {
  const std::string mode = call.Text("mode");
  if (mode == "constant") return PadMode::Constant;
  if (mode == "reflect") return PadMode::Reflect;
  if (mode == "replicate") return PadMode::Replicate;
  call.Fail("mode is '" + mode + "', expected constant, reflect or replicate");
}

std::vector<PadAxis> PadAxes(const OpCall& call) {
  const Shape& x = call.ShapeOf("x");
  const PadMode mode = ModeOfPad(call);
  const std::vector<std::int64_t> amounts = call.Ints("pad");
  if (amounts.size() % 2 != 0 || amounts.size() > 2 * x.size()) {
    call.Fail("pad has " + std::to_string(amounts.size()) + " entries, expected two for each of at most " +
              std::to_string(x.size()) + " dimensions");
  }
  std::vector<PadAxis> axes;
  const std::size_t untouched = x.size() - amounts.size() / 2;
  for (std::size_t i = 0; i < x.size(); ++i) {
    PadAxis& axis = axes.emplace_back(PadAxis{x[i]});
    if (i < untouched) continue;
    axis.before = amounts[2 * (i - untouched)];
    axis.after = amounts[2 * (i - untouched) + 1];
    CheckAxis(call, axis, mode, i);
  }
  return axes;
}

std::int64_t PadSource(const PadAxis& axis, PadMode mode, std::int64_t index) noexcept {
  const std::int64_t element = index - axis.before;
  const std::int64_t last = axis.size - 1;
  if (element >= 0 && element <= last) return element;
  switch (mode) {
    case PadMode::Reflect:
      return element < 0 ? -element : 2 * last - element;
    case PadMode::Replicate:
      return element < 0 ? 0 : last;
    default:
      return -1;
  }
}

std::vector<OpDefinition> PadOps() {
  return {{"pad",
           {Required("x"), Required("pad"), OptionalConstant("mode", Tensor::Text("constant")),
            OptionalConstant("constant_val", Tensor::Float(0.0F))},
           InferPad,
           EvaluatePad}};
}

}  // namespace ulmora::engine::program
