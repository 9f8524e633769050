#pragma once
// What the tests of damaged models share: how bytes are damaged, and what may come of it.

#include "engine/Error.h"
#include "engine/Model.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>

namespace ulmora::engine::testing {

/// True if the model opens; an engine error of one line, of a stage before any run, is the only other thing that may
/// happen.
inline bool OpensOrFailsInOneLine(const std::filesystem::path& path) {
  try {
    const Model model(path);
    return true;
  } catch (const Error& error) {
    const std::string text = error.what();
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    EXPECT_NE(error.stage(), Stage::Run) << text;
    return false;
  }
}

/// The bytes with so many bits flipped.
inline std::string Flipped(std::string bytes, std::mt19937& random, int count) {
  for (int i = 0; i < count; ++i) bytes[random() % bytes.size()] ^= static_cast<char>(1U << (random() % 8));
  return bytes;
}

/// Calls `check` with beginnings of the bytes, from none on, closer together where they are short.
template <typename Check>
void ForTruncated(const std::string& bytes, std::size_t steps, const Check& check) {
  for (std::size_t length = 0; length < bytes.size(); length += 1 + length / steps) {
    SCOPED_TRACE(length);
    check(bytes.substr(0, length));
  }
}

}  // namespace ulmora::engine::testing
