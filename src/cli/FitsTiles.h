#pragma once
// Damage in tile-compressed images, found before the FITS library decodes them. For the FITS sources alone.

#include "cli/FitsSamples.h"

#include <fitsio.h>

namespace ulmora::cli {

/// Looks at every tile's stream of a tile-compressed image without decoding it into samples: DATA_DECOMPRESSION_ERR if
/// one cannot hold its tile, CFITSIO's own status if the tiles cannot be read, else 0. A header that claims more than
/// the file holds costs no memory here.
[[nodiscard]] int CheckTileStreams(fitsfile* file, const FitsAxes& axes);

}  // namespace ulmora::cli
