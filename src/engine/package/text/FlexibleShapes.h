#pragma once
// What the attributes of a function say about inputs whose shape is open.
//
//   1. FlexibleShapeInformation = <type>((("DefaultShapes", shapes), ("RangeDims", ranges)))
//   2. FlexibleShapeInformation = <type>((("DefaultShapes", shapes), ("EnumeratedShapes", sets)))
//   3. shapes = {{"image", [1, 3, 64, 64]}, ...}
//   4. ranges = {{"image", [[1, 1], [3, 3], [8, 512], [8, 512]]}, ...}
//   5. sets   = {{"<hash>", {{"image", [1, 3, 64, 64]}, ...}}, ...}: shapes that go together
//
// The type is long and says nothing more. Attributes and entries of other names are left out.

#include "engine/Feature.h"
#include "engine/Tensor.h"
#include "engine/package/text/Lexer.h"

#include <map>
#include <string>
#include <vector>

namespace ulmora::engine::package {

/// What is said of each input, by its name.
struct FlexibleShapes {
  std::map<std::string, Shape> defaults;
  std::map<std::string, std::vector<SizeRange>> ranges;  ///< of each dimension
  std::map<std::string, std::vector<Shape>> enumerated;  ///< each shape once
};

namespace text {

/// Takes the attributes of a function, brackets included. Throws Error(Open) for what is no list of attributes, no
/// shape or no range.
[[nodiscard]] FlexibleShapes ParseFlexibleShapes(Lexer& lexer);

}  // namespace text
}  // namespace ulmora::engine::package
