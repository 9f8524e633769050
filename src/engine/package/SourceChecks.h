#pragma once
// Checks that both readers of programs, binary and textual, make of what they hand up.

#include <cstdint>
#include <string>

namespace ulmora::engine::package {

/// Throws Error(Translate) "has <count> <what>, expected at most <limit>" beyond the limit.
void CheckCount(std::int64_t count, std::int64_t limit, const char* what);

/// True if an operation's informative name can stand in messages: not empty, at most 200 bytes, no control characters.
[[nodiscard]] bool IsUsableName(const std::string& name);

}  // namespace ulmora::engine::package
