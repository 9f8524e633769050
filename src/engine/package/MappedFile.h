#pragma once
// A regular file mapped into memory for reading, for as long as the object lives.

#include "engine/Error.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

namespace ulmora::engine::package {

/// Owns one private, read-only mapping. Pages are read when they are touched, so mapping a large file costs nothing.
/// A file that another process cuts short while it is mapped makes the kernel end us; nothing portable prevents that.
class MappedFile {
 public:
  /// Throws Error(stage), naming the file, if it cannot be opened, is no regular file or is larger than `maxBytes`.
  MappedFile(const std::filesystem::path& file, std::int64_t maxBytes, Stage stage);
  ~MappedFile();
  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&&) = delete;

  [[nodiscard]] std::span<const std::byte> bytes() const noexcept { return {data_, size_}; }

 private:
  const std::byte* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace ulmora::engine::package
