#pragma once
// Short forms for the parameter lists of operation definitions.

#include "engine/program/OpRegistry.h"

#include <string_view>
#include <utility>

namespace ulmora::engine::program {

/// A tensor that may arrive only at run time.
inline Parameter Required(std::string_view name) {
  return {name, Presence::Required};
}

inline Parameter Optional(std::string_view name) {
  return {name, Presence::Optional};
}

inline Parameter Variadic(std::string_view name) {
  return {name, Presence::Variadic};
}

/// A parameter of which only the type is used.
inline Parameter TypeOnly(std::string_view name) {
  return {.name = name, .presence = Presence::Required, .typeOnly = true};
}

/// A parameter that must be known before the network runs.
inline Parameter RequiredConstant(std::string_view name) {
  return {name, Presence::Required, true};
}

/// Without a fixed default: its meaning when absent depends on the other operands.
inline Parameter OptionalConstant(std::string_view name) {
  return {name, Presence::Optional, true};
}

inline Parameter OptionalConstant(std::string_view name, Tensor fallback) {
  return {name, Presence::Optional, true, std::move(fallback)};
}

}  // namespace ulmora::engine::program
