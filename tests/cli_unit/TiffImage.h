#pragma once
// Small TIFF images in the layouts that cameras and scientific software write, for the tests of the decode layer.

#include "tests/cli_unit/TiffBytes.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ulmora::test {

struct TiffImage {
  TiffForm form{true, false};
  int width = 0;
  int height = 0;
  int samples = 1;       ///< per pixel
  int bits = 16;         ///< 8, 16 or 32
  int photometric = 1;   ///< 0 white is zero, 1 black is zero, 2 RGB
  int sampleFormat = 1;  ///< 1 unsigned, 2 signed, 3 float
  bool separatePlanes = false;
  int rowsPerStrip = 7;             ///< odd, so that the last strip is cut
  int tileSide = 0;                 ///< a multiple of 16 for tiles, 0 for strips
  bool differences = false;         ///< LZW, each sample stored as its difference from the one a pixel before
  int orientation = 0;              ///< 0 for no such field
  bool countsSamples = true;        ///< false leaves out how many samples a pixel has
  bool damagedDescription = false;  ///< a description that would lie behind the end of the file
  std::uint64_t claimedWidth = 0;   ///< what the directory says in 64 bits, 0 for the truth
  std::uint64_t claimedHeight = 0;
  /// The stored bits of one sample.
  std::function<std::uint64_t(int x, int y, int sample)> value;

  [[nodiscard]] std::string Build() const;
};

namespace tiff_image_detail {

/// LZW codes, most significant bit first; never more than 9 bits wide, since the table is cleared in time.
inline std::string Lzw(const std::string& bytes) {
  constexpr unsigned kClear = 256;
  constexpr unsigned kEnd = 257;
  std::string packed;
  unsigned pending = 0;
  int bits = 0;
  const auto put = [&](unsigned code) {
    pending = pending << 9 | code;
    for (bits += 9; bits >= 8; bits -= 8) packed += static_cast<char>(pending >> (bits - 8) & 0xFF);
  };
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i % 200 == 0) put(kClear);
    put(static_cast<unsigned char>(bytes[i]));
  }
  put(kEnd);
  if (bits > 0) packed += static_cast<char>(pending << (8 - bits) & 0xFF);
  return packed;
}

struct Area {
  int left, top, columns, rows;
};

}  // namespace tiff_image_detail

inline std::string TiffImage::Build() const {
  using tiff_image_detail::Area;
  const bool tiled = tileSide != 0;
  std::vector<Area> areas;
  const int stepX = tiled ? tileSide : width;
  const int stepY = tiled ? tileSide : rowsPerStrip;
  for (int top = 0; top < height; top += stepY) {
    const int rows = tiled || top + stepY <= height ? stepY : height - top;
    for (int left = 0; left < width; left += stepX) areas.push_back({left, top, stepX, rows});
  }
  TiffBytes file(form);
  std::vector<std::uint64_t> offsets;
  std::vector<std::uint64_t> counts;
  const auto mask = bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1;
  const auto addChunk = [&](const Area& area, int first, int last) {
    std::string bytes;
    for (int y = area.top; y < area.top + area.rows; ++y) {
      for (int x = area.left; x < area.left + area.columns; ++x) {
        for (int s = first; s < last; ++s) {
          const bool inside = x < width && y < height;
          std::uint64_t sample = inside ? value(x, y, s) : 0;
          if (differences && x > area.left) sample -= x - 1 < width && y < height ? value(x - 1, y, s) : 0;
          bytes += file.Number(sample & mask, static_cast<std::size_t>(bits / 8));
        }
      }
    }
    if (differences) bytes = tiff_image_detail::Lzw(bytes);
    offsets.push_back(file.Here());
    counts.push_back(bytes.size());
    file.Bytes(bytes);
  };
  for (int plane = 0; plane < (separatePlanes ? samples : 1); ++plane) {
    for (const Area& area : areas) addChunk(area, separatePlanes ? plane : 0, separatePlanes ? plane + 1 : samples);
  }
  const auto number = [](int v) { return std::vector<std::uint64_t>{static_cast<std::uint64_t>(v)}; };
  const auto shorts = [&](std::uint16_t tag, const std::vector<std::uint64_t>& v) { file.Numbers(tag, 3, 2, v); };
  const auto longs = [&](std::uint16_t tag, const std::vector<std::uint64_t>& v) { file.Numbers(tag, 4, 4, v); };
  const std::vector<std::uint64_t> each(static_cast<std::size_t>(samples), static_cast<std::uint64_t>(bits));
  const auto side = [&](std::uint16_t tag, int truth, std::uint64_t claimed) {
    if (claimed == 0) {
      longs(tag, number(truth));
    } else {
      file.Numbers(tag, 16, 8, {claimed});
    }
  };
  side(256, width, claimedWidth);
  side(257, height, claimedHeight);
  shorts(258, each);
  shorts(259, number(differences ? 5 : 1));
  shorts(262, number(photometric));
  if (damagedDescription) file.Raw(270, 2, 100, file.Number(0x7FFFFFFF, file.OffsetSize()));
  if (!tiled) longs(273, offsets);
  if (orientation != 0) shorts(274, number(orientation));
  if (countsSamples) shorts(277, number(samples));
  if (!tiled) longs(278, number(rowsPerStrip));
  if (!tiled) longs(279, counts);
  shorts(284, number(separatePlanes ? 2 : 1));
  if (differences) shorts(317, number(2));
  if (tiled) {
    longs(322, number(tileSide));
    longs(323, number(tileSide));
    longs(324, offsets);
    longs(325, counts);
  }
  shorts(339, std::vector<std::uint64_t>(static_cast<std::size_t>(samples), static_cast<std::uint64_t>(sampleFormat)));
  return file.Build();
}

}  // namespace ulmora::test
