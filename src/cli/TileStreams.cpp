#include "cli/TileStreams.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <limits>
#include <memory>
#include <zlib.h>

namespace ulmora::cli {
namespace {

/// Bits of a byte stream, the highest of each byte first.
class Bits {
 public:
  explicit Bits(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  /// False when fewer than `count` bits are left.
  bool Skip(std::uint64_t count) {
    if (count > bytes_.size() * 8 - position_) return false;
    position_ += count;
    return true;
  }

  /// The next `count` bits as a number, at most 8; -1 when they are not there.
  int Take(unsigned count) {
    unsigned value = 0;
    for (unsigned i = 0; i < count; ++i) {
      if (position_ == bytes_.size() * 8) return -1;
      value = value << 1 | (bytes_[position_ / 8] >> (7 - position_ % 8) & 1U);
      ++position_;
    }
    return static_cast<int>(value);
  }

  /// Skips zeros and the one behind them; false when no one comes.
  bool SkipUnary() {
    while (position_ < bytes_.size() * 8) {
      const auto rest = static_cast<std::uint8_t>(bytes_[position_ / 8] << position_ % 8);
      if (rest != 0) {
        position_ += static_cast<unsigned>(std::countl_zero(rest)) + 1;
        return true;
      }
      position_ = (position_ / 8 + 1) * 8;
    }
    return false;
  }

 private:
  std::span<const std::uint8_t> bytes_;
  std::uint64_t position_ = 0;
};

/// Width of a block's code, the code that says "raw", and the bits of a raw difference.
struct RiceCode {
  unsigned width;
  int raw;
  unsigned rawBits;
};

bool HoldsBlock(Bits& bits, std::uint64_t pixels, RiceCode code) {
  const int stored = bits.Take(code.width);
  if (stored < 0) return false;
  // A code of n stands for n - 1 low bits, and 0 for differences that are all zero.
  if (stored == 0) return true;
  const int low = stored - 1;
  if (low >= code.raw) return low == code.raw && bits.Skip(pixels * code.rawBits);
  for (std::uint64_t i = 0; i < pixels; ++i) {
    if (!bits.SkipUnary() || !bits.Skip(static_cast<unsigned>(low))) return false;
  }
  return true;
}

std::uint32_t BigEndian32(std::span<const std::uint8_t> bytes) {
  return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
}

}  // namespace

bool HoldsRicePixels(std::span<const std::uint8_t> stream, std::uint64_t pixels, RiceFormat format) {
  if (format.blockSize < 1) return false;
  RiceCode code{};
  switch (format.bytesPerPixel) {
    case 1:
      code = {3, 6, 8};
      break;
    case 2:
      code = {4, 14, 16};
      break;
    case 4:
      code = {5, 25, 32};
      break;
    default:
      return false;
  }
  Bits bits(stream);
  if (!bits.Skip(code.rawBits)) return false;
  const auto block = static_cast<std::uint64_t>(format.blockSize);
  for (std::uint64_t done = 0; done < pixels; done += std::min(block, pixels - done)) {
    if (!HoldsBlock(bits, std::min(block, pixels - done), code)) return false;
  }
  return true;
}

bool HoldsPixelListInstructions(std::span<const std::int16_t> list) {
  if (list.empty()) return true;
  if (list.size() < 3) return false;
  // The old form announces its length in the third word, the new one in the fourth and fifth, its start in the second.
  std::int64_t length = list[2];
  std::int64_t first = 3;
  if (length <= 0) {
    if (list.size() < 7) return false;
    length = std::int64_t{list[4]} * 32768 + list[3];
    first = list[1];
  }
  if (first < 0 || length < 0 || length > static_cast<std::int64_t>(list.size())) return false;
  constexpr int kSetsHighPart = 1;
  for (std::int64_t i = first; i < length; ++i) {
    if (list[static_cast<std::size_t>(i)] >> 12 != kSetsHighPart) continue;
    if (++i >= length) return false;
  }
  return true;
}

bool AnnouncesHcompressPixels(std::span<const std::uint8_t> stream, std::uint64_t pixels) {
  constexpr std::size_t kHeader = 25;
  constexpr unsigned kMostBits = 63;
  if (stream.size() < kHeader || stream[0] != 0xDD || stream[1] != 0x99) return false;
  const std::uint64_t rows = BigEndian32(stream.subspan(2));
  const std::uint64_t columns = BigEndian32(stream.subspan(6));
  const auto planes = stream.subspan(22, 3);
  return rows != 0 && columns != 0 && rows < 1U << 31 && columns < 1U << 31 && rows * columns == pixels &&
         std::all_of(planes.begin(), planes.end(), [](std::uint8_t bits) { return bits <= kMostBits; });
}

bool HoldsDeflated(std::span<const std::uint8_t> stream, std::uint64_t most) {
  constexpr int kGzipHeader = 16;
  z_stream state{};
  if (stream.size() > std::numeric_limits<uInt>::max() || inflateInit2(&state, MAX_WBITS + kGzipHeader) != Z_OK) {
    return false;
  }
  const std::unique_ptr<z_stream, decltype(&inflateEnd)> owner(&state, &inflateEnd);
  // The library takes its input through a pointer to what is not constant and leaves it alone.
  state.next_in = const_cast<Bytef*>(stream.data());
  state.avail_in = static_cast<uInt>(stream.size());
  std::array<Bytef, 16384> thrownAway;
  std::uint64_t length = 0;
  int result = Z_OK;
  while (result == Z_OK && length <= most) {
    state.next_out = thrownAway.data();
    state.avail_out = static_cast<uInt>(thrownAway.size());
    result = inflate(&state, Z_NO_FLUSH);
    length += thrownAway.size() - state.avail_out;
  }
  return result == Z_STREAM_END && length <= most;
}

}  // namespace ulmora::cli
