#pragma once
// Sizes of tiles and coding blocks below 1, found before the FITS library divides by them. For the FITS sources alone.

#include <fitsio.h>

#include <string>

namespace ulmora::cli {

/// Looks, in the file itself, at the header of every HDU behind the first before the library is moved there:
/// DATA_DECOMPRESSION_ERR if a tile-compressed image claims tiles or blocks of no pixels, else 0, whatever else is
/// wrong with the file. `file` is open at its first HDU and may stand at any other afterwards.
[[nodiscard]] int CheckTileSizes(fitsfile* file, const std::string& path);

}  // namespace ulmora::cli
