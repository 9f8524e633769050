#pragma once
// Lists of dimensions in the textual program: "[" [ size { "," size } ] "]".

#include "engine/Tensor.h"
#include "engine/package/text/Lexer.h"

#include <cstdint>
#include <string_view>

namespace ulmora::engine::package::text {

/// What a list may hold. No list is longer than limits::kMaxRank, no size larger than limits::kMaxTensorElements.
struct ShapeRules {
  std::string_view owner;     ///< whose dimensions they are, for messages: "a tensor type"
  std::int64_t smallest = 0;  ///< size of a dimension
  bool mayBeOpen = false;     ///< "?" stands for kUnknownDim
};

/// Takes a list of dimensions. Throws Error(Open) if there is none, or one beyond the rules.
[[nodiscard]] Shape ParseShape(Lexer& lexer, const ShapeRules& rules);

}  // namespace ulmora::engine::package::text
