#include "cli/FitsTiles.h"

#include "cli/TileStreams.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ulmora::cli {
namespace {

std::string ReadText(fitsfile* file, const char* name) {
  int status = 0;
  std::array<char, FLEN_VALUE> text{};
  fits_read_key(file, TSTRING, name, text.data(), nullptr, &status);
  if (status != 0) fits_clear_errmsg();
  return status == 0 ? text.data() : "";
}

long ReadNumber(fitsfile* file, const std::string& name, long missing) {
  int status = 0;
  long value = missing;
  fits_read_key(file, TLONG, name.c_str(), &value, nullptr, &status);
  if (status == 0) return value;
  fits_clear_errmsg();
  return missing;
}

/// How an image is cut into tiles: one row of the table each, the first axis running fastest.
struct Tiling {
  int axes = 0;
  std::array<LONGLONG, 3> lengths{};
  std::array<LONGLONG, 3> tile{};

  [[nodiscard]] LONGLONG Count() const {
    LONGLONG count = 1;
    for (std::size_t k = 0; k < static_cast<std::size_t>(axes); ++k) count *= (lengths[k] + tile[k] - 1) / tile[k];
    return count;
  }
  /// Pixels of tile `index`; those at the far edges are smaller.
  [[nodiscard]] LONGLONG Pixels(LONGLONG index) const {
    LONGLONG pixels = 1;
    for (std::size_t k = 0; k < static_cast<std::size_t>(axes); ++k) {
      const LONGLONG across = (lengths[k] + tile[k] - 1) / tile[k];
      pixels *= std::min(tile[k], lengths[k] - index % across * tile[k]);
      index /= across;
    }
    return pixels;
  }
};

/// Without cards of its own a tiling is by rows.
Tiling ReadTiling(fitsfile* file, const FitsAxes& axes) {
  Tiling tiling;
  tiling.axes = axes.count;
  for (std::size_t k = 0; k < static_cast<std::size_t>(axes.count); ++k) {
    tiling.lengths[k] = axes.lengths[k];
    const long wanted = ReadNumber(file, "ZTILE" + std::to_string(k + 1), k == 0 ? axes.lengths[0] : 1);
    tiling.tile[k] = std::clamp<LONGLONG>(wanted, 1, axes.lengths[k]);
  }
  return tiling;
}

enum class Coding { rice, pixelList, hcompress, deflate, other };

/// No sample of an image takes more bytes.
constexpr std::uint64_t kMostSampleBytes = 8;

/// A block of fewer pixels together with samples of more bytes is what a writer leaves that swapped the two.
constexpr int kFewestRicePixels = 16;
constexpr int kMostRiceBytes = 8;

Coding ReadCoding(fitsfile* file) {
  const std::string name = ReadText(file, "ZCMPTYPE");
  if (name == "RICE_1" || name == "RICE_ONE") return Coding::rice;
  if (name == "PLIO_1") return Coding::pixelList;
  if (name == "HCOMPRESS_1") return Coding::hcompress;
  if (name == "GZIP_1" || name == "GZIP_2") return Coding::deflate;
  return Coding::other;
}

/// Reads the last byte or word of a stream alone: a lying length fails here, before anything is allocated for it.
template <typename T>
void ProbeStream(fitsfile* file, int type, int column, LONGLONG row, LONGLONG length, int& status) {
  T last{};
  fits_read_col(file, type, column, row, length, 1, nullptr, &last, nullptr, &status);
}

/// The stream in the table's cell; empty with a status.
template <typename T>
std::vector<T> ReadStream(fitsfile* file, int type, int column, LONGLONG row, LONGLONG length, int& status) {
  ProbeStream<T>(file, type, column, row, length, status);
  if (status != 0) return {};
  std::vector<T> stream(static_cast<std::size_t>(length));
  fits_read_col(file, type, column, row, 1, length, nullptr, stream.data(), nullptr, &status);
  return stream;
}

class TileChecker {
 public:
  TileChecker(fitsfile* file, const FitsAxes& axes)
      : file_(file), tiling_(ReadTiling(file, axes)), coding_(ReadCoding(file)) {
    // The library takes these two by their position, whatever their names, unless they make sense only the other way.
    rice_.blockSize = static_cast<int>(ReadNumber(file, "ZVAL1", rice_.blockSize));
    rice_.bytesPerPixel = static_cast<int>(ReadNumber(file, "ZVAL2", rice_.bytesPerPixel));
    if (rice_.blockSize < kFewestRicePixels && rice_.bytesPerPixel > kMostRiceBytes) {
      std::swap(rice_.blockSize, rice_.bytesPerPixel);
    }
  }

  int Check() {
    const int streams = Column("COMPRESSED_DATA");
    // Where quantising a tile of floats was not worth it, its samples stand here, deflated.
    const int exact = Column("GZIP_COMPRESSED_DATA");
    int status = 0;
    const LONGLONG count = tiling_.Count();
    for (LONGLONG tile = 0; tile < count && status == 0; ++tile) {
      CheckTile(coding_, streams, tile, status);
      CheckTile(Coding::deflate, exact, tile, status);
    }
    return status;
  }

 private:
  /// The number of a column, 0 where there is none.
  int Column(std::string name) {
    int status = 0;
    int column = 0;
    fits_get_colnum(file_, CASEINSEN, name.data(), &column, &status);
    if (status != 0) fits_clear_errmsg();
    return status == 0 ? column : 0;
  }

  void CheckTile(Coding coding, int column, LONGLONG tile, int& status) {
    if (column == 0 || status != 0) return;
    LONGLONG length = 0;
    LONGLONG offset = 0;
    fits_read_descriptll(file_, column, tile + 1, &length, &offset, &status);
    // A tile without a stream here is stored in another column.
    if (status != 0 || length <= 0) return;
    const auto pixels = static_cast<std::uint64_t>(tiling_.Pixels(tile));
    const bool whole = IsWhole(coding, column, tile + 1, length, pixels, status);
    if (status == 0 && !whole) status = DATA_DECOMPRESSION_ERR;
  }

  bool IsWhole(Coding coding, int column, LONGLONG row, LONGLONG length, std::uint64_t pixels, int& status) {
    if (coding == Coding::other) return true;
    if (coding == Coding::pixelList) {
      return HoldsPixelListInstructions(ReadStream<std::int16_t>(file_, TSHORT, column, row, length, status));
    }
    const auto stream = ReadStream<std::uint8_t>(file_, TBYTE, column, row, length, status);
    if (coding == Coding::rice) return HoldsRicePixels(stream, pixels, rice_);
    if (coding == Coding::hcompress) return AnnouncesHcompressPixels(stream, pixels);
    return HoldsDeflated(stream, pixels * kMostSampleBytes);
  }

  fitsfile* file_;
  Tiling tiling_;
  Coding coding_;
  RiceFormat rice_;
};

}  // namespace

int CheckTileStreams(fitsfile* file, const FitsAxes& axes) {
  return TileChecker(file, axes).Check();
}

}  // namespace ulmora::cli
