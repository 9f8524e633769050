#pragma once
// One operation of the textual program.

#include "engine/package/ConstantReader.h"
#include "engine/package/ModelSource.h"
#include "engine/package/text/Lexer.h"

namespace ulmora::engine::package::text {

/// Takes a type and the name behind it. Throws Error(Open).
[[nodiscard]] NamedType ParseTypedName(Lexer& lexer, const char* what);

/// Takes a statement up to its semicolon. Throws Error(Open) with line and column, Error(Translate) if a limit on
/// counts is passed, and what ConstantReader throws.
[[nodiscard]] SourceOperation ParseStatement(Lexer& lexer, ConstantReader& constants);

}  // namespace ulmora::engine::package::text
