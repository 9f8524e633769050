#pragma once
// JSON documents of bundles. For this folder alone: the generated classes stay behind it.

#include <google/protobuf/struct.pb.h>

#include <cstddef>
#include <span>

namespace ulmora::engine::package {

/// The document. Throws Error(Open) "is not a JSON document: <why>" for anything else, and for one that is nested
/// deeper than the parser goes.
[[nodiscard]] google::protobuf::Value ParseJson(std::span<const std::byte> bytes);

}  // namespace ulmora::engine::package
