#pragma once
// Shapes as texts write them, in the program and beside it.
//
//   1. shape  = "[" [ size { "," size } ] "]"
//   2. shapes = "[" [ shape { "," shape } ] "]"
//   3. ranges = "[" [ range { "," range } ] "]", where range = "[" least "," most "]"; a negative most means no bound

#include "engine/Feature.h"
#include "engine/Tensor.h"
#include "engine/package/text/Lexer.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace ulmora::engine::package::text {

/// What a list may hold. No list is longer than limits::kMaxRank, no size larger than limits::kMaxTensorElements.
struct ShapeRules {
  std::string_view owner;     ///< whose dimensions they are, for messages: "a tensor type"
  std::int64_t smallest = 0;  ///< size of a dimension
  bool mayBeOpen = false;     ///< "?" stands for kUnknownDim
};

/// Takes a list of dimensions. Throws Error(Open) if there is none, or one beyond the rules.
[[nodiscard]] Shape ParseShape(Lexer& lexer, const ShapeRules& rules);

/// Takes a list of shapes, at most limits::kMaxEnumeratedShapes. Throws Error(Open) for anything else.
[[nodiscard]] std::vector<Shape> ParseShapes(Lexer& lexer, const ShapeRules& rules);

/// Takes ranges, one for each dimension, at most limits::kMaxRank. Throws Error(Open) for anything else, and for ranges
/// that no size lies in.
[[nodiscard]] std::vector<SizeRange> ParseRanges(Lexer& lexer);

}  // namespace ulmora::engine::package::text
