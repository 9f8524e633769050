#pragma once
// Damage in tile-compressed images, found before the FITS library decodes them. For the FITS sources alone.

#include "cli/FitsSamples.h"

#include <fitsio.h>

namespace ulmora::cli {

/// Looks at every tile's stream of a tile-compressed image without decoding it: DATA_DECOMPRESSION_ERR if one cannot
/// hold its tile (for deflated ones: not even at deflate's best ratio), CFITSIO's own status if the tiles cannot be
/// read, else 0. A header that claims more than the file holds thus costs no memory.
[[nodiscard]] int CheckTileStreams(fitsfile* file, const FitsAxes& axes);

}  // namespace ulmora::cli
