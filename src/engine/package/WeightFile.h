#pragma once
// The file of constants beside a model message.
//
// Grammar, all numbers little endian:
//   1. file    = header { record }
//   2. header  = u32 record count (not relied on), u32 version = 2, 56 reserved bytes
//   3. record  = metadata data, the metadata at a multiple of 64
//   4. metadata (64 bytes) =
//        u32 sentinel 0xDEADBEEF, u32 element type (a numbering of its own), u64 data size in bytes,
//        u64 data offset from the start of the file, u64 unused bits at the end of the data, 32 reserved bytes
//   5. data    = elements in row-major order; types below one byte form one stream of bits, lowest bit first
//   6. The unused bits (fewer than 8) are counted for types below one byte alone; files of older writers hold
//      arbitrary bytes in that word and in the reserved ones.
// A constant refers to a record by the offset of its metadata, and several constants may refer to the same record.

#include "engine/Tensor.h"
#include "engine/package/MappedFile.h"

#include <cstdint>
#include <filesystem>

namespace ulmora::engine::package {

/// One opened weight file.
class WeightFile {
 public:
  /// Throws Error(Load) if the file cannot be mapped or its header is not that of version 2.
  explicit WeightFile(const std::filesystem::path& file);

  /// The packed bytes of the record at `offset`, which must hold the elements of a tensor of this type. Throws
  /// Error(Load) if there is no such record, if its type or size differ, or if it reaches beyond the file.
  [[nodiscard]] std::span<const std::byte> Record(std::uint64_t offset, ElementType type, const Shape& shape) const;

 private:
  std::string name_;
  MappedFile mapping_;
};

}  // namespace ulmora::engine::package
