#pragma once
// Names from packages as they may appear in a one-line message, and messages that gather their context on the way up.

#include "engine/Error.h"

#include <string>
#include <string_view>
#include <utility>

namespace ulmora::engine::package {

/// `text` in single quotes, control characters as "?", cut after 1024 bytes: a package must not be able to break our
/// one-line messages or to flood them.
[[nodiscard]] std::string Quoted(std::string_view text);

/// Returns `name` if it can be a name of a value, a feature or an operation: not empty, at most 1024 bytes, no control
/// characters. Throws Error(Open) otherwise; `what` says whose name it is.
const std::string& CheckedName(const std::string& name, std::string_view what);

/// The result of `action`; an Error from it gets "<where>: " in front of its message and keeps its stage. `where` is
/// called only then, so that the usual road builds no texts.
template <typename Where, typename Action>
auto Within(const Where& where, const Action& action) -> decltype(action()) {
  try {
    return action();
  } catch (const Error& error) {
    throw Error(error.stage(), where() + ": " + error.what());
  }
}

}  // namespace ulmora::engine::package
