#pragma once
// What the attributes of a function say about inputs whose shape is open.
//
//   FlexibleShapeInformation = <type>((("DefaultShapes", {{"image", [1, 3, 64, 64]}, ...}), ("RangeDims", ...)))
//
// The type is long and says nothing more. Attributes of other names are left out.

#include "engine/Tensor.h"
#include "engine/package/text/Lexer.h"

#include <map>
#include <string>

namespace ulmora::engine::package::text {

/// Takes the attributes of a function, brackets included, and returns the default shape of every input that they name.
/// Throws Error(Open) for what is no list of attributes or no shape.
[[nodiscard]] std::map<std::string, Shape> ParseDefaultShapes(Lexer& lexer);

}  // namespace ulmora::engine::package::text
