#pragma once
// Writes a result as a new single-image FITS file, in the storage of its FITS source if it had one.

#include "cli/CliDiagnostics.h"
#include "cli/FitsMetadata.h"
#include "cli/FitsOutputRole.h"

#include <opencv2/core.hpp>

#include <string>

namespace ulmora::cli {

/// Writes `image` (any depth, one or three channels in R, G, B order, normalized samples) to `path`, replacing an
/// existing file. With metadata the source's BITPIX, scaling, layout and cards are reproduced and samples are written
/// in its physical units; without, a 32-bit floating-point image of the normalized samples. A `grayscale` result of
/// three channels is folded to one; a source cube is always answered with a cube. std::invalid_argument for every
/// failure; from the moment the file is created a failure leaves an incomplete file.
void WriteFitsImage(const std::string& path, const cv::Mat& image, bool grayscale, const FitsMetadata* metadata,
                    FitsOutputRole role, const CliDiagnostics& diagnostics);

}  // namespace ulmora::cli
