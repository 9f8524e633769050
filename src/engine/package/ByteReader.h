#pragma once
// A cursor over little-endian bytes that cannot leave them.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace ulmora::engine::package {

/// Reads from the front. A read beyond the end gives nothing and leaves the cursor where it was.
class ByteReader {
 public:
  explicit ByteReader(std::span<const std::byte> bytes) : rest_(bytes) {}

  [[nodiscard]] std::optional<std::uint32_t> U32();
  [[nodiscard]] std::optional<std::uint64_t> U64();
  /// True if there were `count` bytes to skip.
  [[nodiscard]] bool Skip(std::uint64_t count);

 private:
  template <typename T>
  std::optional<T> Unsigned();

  std::span<const std::byte> rest_;
};

/// The `size` bytes from `offset`, or nothing if they do not lie within `bytes`. Any pair of numbers is allowed.
[[nodiscard]] std::optional<std::span<const std::byte>> Slice(std::span<const std::byte> bytes, std::uint64_t offset,
                                                              std::uint64_t size);

}  // namespace ulmora::engine::package
