#include "engine/package/SourceChecks.h"

#include "engine/Error.h"

#include <algorithm>

namespace ulmora::engine::package {

void CheckCount(std::int64_t count, std::int64_t limit, const char* what) {
  if (count <= limit) return;
  throw Error(Stage::Translate,
              "has " + std::to_string(count) + " " + what + ", expected at most " + std::to_string(limit));
}

bool IsUsableName(const std::string& name) {
  constexpr std::size_t kMaxBytes = 200;
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  return !name.empty() && name.size() <= kMaxBytes && std::none_of(name.begin(), name.end(), isControl);
}

}  // namespace ulmora::engine::package
