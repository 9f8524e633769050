#pragma once
// Whether the compressed stream of an image tile holds all that its decoder will read. The FITS library's decoders do
// not stop at the end of their input, and for deflate at no end of their output, so a damaged file must be noticed
// before.

#include <cstdint>
#include <span>

namespace ulmora::cli {

/// How a Rice stream was written: 1, 2 or 4 bytes per pixel, and how many pixels share one code.
struct RiceFormat {
  int bytesPerPixel = 4;
  int blockSize = 32;
};

/// True if the stream has the bits of `pixels` pixels. The format is that of the FITS standard, section 10.4.1: the
/// first pixel raw, then per block a code of 3, 4 or 5 bits that says how the differences are stored: none, as unary
/// high parts with raw low bits, or raw. False for a format that does not exist.
[[nodiscard]] bool HoldsRicePixels(std::span<const std::uint8_t> stream, std::uint64_t pixels, RiceFormat format);

/// True if the list of 16-bit words holds the instructions that its header announces, and the operand of each (FITS
/// standard, section 10.4.3). An empty list is the short form of nothing.
[[nodiscard]] bool HoldsPixelListInstructions(std::span<const std::int16_t> list);

/// True if the stream begins as an H-compressed one (FITS standard, section 10.4.4) of exactly this many pixels whose
/// coefficients have numbers of bits that exist. The coefficients themselves are not looked at.
[[nodiscard]] bool AnnouncesHcompressPixels(std::span<const std::uint8_t> stream, std::uint64_t pixels);

/// True if the stream is a whole gzip one that inflates to at most `most` bytes.
[[nodiscard]] bool HoldsDeflated(std::span<const std::uint8_t> stream, std::uint64_t most);

}  // namespace ulmora::cli
