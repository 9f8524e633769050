#include "cli/FitsTileSizes.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <zlib.h>

namespace ulmora::cli {
namespace {

constexpr std::size_t kCardBytes = 80;
constexpr std::size_t kBlockBytes = 2880;

/// The bytes of a FITS file as the library sees them: inflated if they are deflated.
class FitsBytes {
 public:
  explicit FitsBytes(const std::string& path) : file_(gzopen(path.c_str(), "rb"), &gzclose) {}

  [[nodiscard]] bool MoveTo(LONGLONG offset) {
    return file_ != nullptr && gzseek(file_.get(), static_cast<z_off_t>(offset), SEEK_SET) == offset;
  }
  /// The next block; what is left of the file if that is less.
  [[nodiscard]] std::string_view Read() {
    const int bytes = gzread(file_.get(), block_.data(), static_cast<unsigned>(block_.size()));
    return {block_.data(), static_cast<std::size_t>(std::max(bytes, 0))};
  }

 private:
  std::unique_ptr<gzFile_s, int (*)(gzFile)> file_;
  std::array<char, kBlockBytes> block_{};
};

/// Whether the card's value is anything but a number from 1 up, bare or in quotes. The library ignores that it could
/// not read a size and goes on with 0; so both ways in which it may read one must be content.
bool IsNoSize(std::string_view card) {
  std::string text(card);
  std::array<char, FLEN_VALUE> value{};
  std::array<char, FLEN_COMMENT> comment{};
  int status = 0;
  if (fits_parse_value(text.data(), value.data(), comment.data(), &status) != 0) fits_clear_errmsg();
  std::string number(value.data());
  std::erase(number, '\'');
  std::replace(number.begin(), number.end(), 'D', 'E');
  return !(std::strtod(number.c_str(), nullptr) >= 1.0) || std::strtoll(number.c_str(), nullptr, 10) < 1;
}

/// What the cards of one header say. Of several cards of a keyword the library may take any.
struct Sizes {
  bool areOfAnImage = false;  ///< of a tile-compressed one
  bool areInBlocks = false;   ///< by Rice's coding, whose first parameter is the size of its blocks
  bool haveEmptyTile = false;
  bool haveEmptyBlock = false;

  void Read(std::string_view card) {
    areOfAnImage = areOfAnImage || card.starts_with("ZIMAGE");
    areInBlocks = areInBlocks || (card.starts_with("ZCMPTYPE") && card.find("RICE") != std::string_view::npos);
    haveEmptyTile = haveEmptyTile || (card.starts_with("ZTILE") && IsNoSize(card));
    haveEmptyBlock = haveEmptyBlock || (card.starts_with("ZVAL1 ") && IsNoSize(card));
  }
  [[nodiscard]] bool AreUsable() const { return !areOfAnImage || !(haveEmptyTile || (areInBlocks && haveEmptyBlock)); }
};

/// Reads the header from here to its end, which may be the file's.
Sizes ReadSizes(FitsBytes& bytes) {
  Sizes sizes;
  for (std::string_view block = bytes.Read(); !block.empty(); block = bytes.Read()) {
    for (; !block.empty(); block.remove_prefix(std::min(kCardBytes, block.size()))) {
      const std::string_view card = block.substr(0, kCardBytes);
      sizes.Read(card);
      if (card.starts_with("END") && card.find_first_not_of(' ', 3) == std::string_view::npos) return sizes;
    }
  }
  return sizes;
}

}  // namespace

int CheckTileSizes(fitsfile* file, const std::string& path) {
  FitsBytes bytes(path);
  int status = 0;
  while (status == 0) {
    LONGLONG next = 0;
    fits_get_hduaddrll(file, nullptr, nullptr, &next, &status);
    if (status != 0 || !bytes.MoveTo(next)) break;
    if (!ReadSizes(bytes).AreUsable()) return DATA_DECOMPRESSION_ERR;
    fits_movrel_hdu(file, 1, nullptr, &status);
  }
  fits_clear_errmsg();
  return 0;
}

}  // namespace ulmora::cli
