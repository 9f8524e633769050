#pragma once
// Numbers of file formats in the byte order that the file declares, whatever the order of the host.

#include <cstdint>

namespace ulmora::cli {

/// Assemble an unsigned number from the 2, 4 or 8 bytes at `bytes`, which the caller has checked to be there.
inline std::uint16_t Read16(const std::uint8_t* bytes, bool littleEndian) {
  const unsigned first = bytes[0];
  const unsigned second = bytes[1];
  return static_cast<std::uint16_t>(littleEndian ? first | second << 8 : first << 8 | second);
}

inline std::uint32_t Read32(const std::uint8_t* bytes, bool littleEndian) {
  const std::uint32_t first = Read16(bytes, littleEndian);
  const std::uint32_t second = Read16(bytes + 2, littleEndian);
  return littleEndian ? first | second << 16 : first << 16 | second;
}

inline std::uint64_t Read64(const std::uint8_t* bytes, bool littleEndian) {
  const std::uint64_t first = Read32(bytes, littleEndian);
  const std::uint64_t second = Read32(bytes + 4, littleEndian);
  return littleEndian ? first | second << 32 : first << 32 | second;
}

/// Store an unsigned number in the 2, 4 or 8 bytes at `bytes`.
inline void Write16(std::uint8_t* bytes, std::uint16_t value, bool littleEndian) {
  bytes[littleEndian ? 0 : 1] = static_cast<std::uint8_t>(value);
  bytes[littleEndian ? 1 : 0] = static_cast<std::uint8_t>(value >> 8);
}

inline void Write32(std::uint8_t* bytes, std::uint32_t value, bool littleEndian) {
  Write16(bytes + (littleEndian ? 0 : 2), static_cast<std::uint16_t>(value), littleEndian);
  Write16(bytes + (littleEndian ? 2 : 0), static_cast<std::uint16_t>(value >> 16), littleEndian);
}

inline void Write64(std::uint8_t* bytes, std::uint64_t value, bool littleEndian) {
  Write32(bytes + (littleEndian ? 0 : 4), static_cast<std::uint32_t>(value), littleEndian);
  Write32(bytes + (littleEndian ? 4 : 0), static_cast<std::uint32_t>(value >> 32), littleEndian);
}

}  // namespace ulmora::cli
