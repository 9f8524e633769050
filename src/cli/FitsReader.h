#pragma once
// Reads an image HDU of a FITS file into a normalized image, with all that a FITS output will need to reproduce it.

#include "cli/CliDiagnostics.h"
#include "cli/FitsMetadata.h"

#include <opencv2/core.hpp>

#include <string>

namespace ulmora::cli {

struct FitsImage {
  cv::Mat image;  ///< one or three channels in R, G, B order, normalized
  FitsMetadata metadata;
};

/// Reads the first 2-D or 3-D image of the file, gzip-compressed or not. Samples are read once in double precision with
/// BSCALE and BZERO applied, then divided by a divisor that the sample type alone decides. Without `linear` the image
/// is CV_32F and floating-point files must lie in [0,1]; with it the image is CV_64F, samples above 1 are clipped with
/// a warning, and the unclipped physical samples are kept. std::invalid_argument for every failure: CFITSIO's refusals,
/// no usable image, undefined or infinite samples, samples out of range, cubes of other than three channels.
[[nodiscard]] FitsImage ReadFitsImageWithMetadata(const std::string& path, bool linear,
                                                  const CliDiagnostics& diagnostics);

/// The image alone, read without `linear` and without routine diagnostics.
[[nodiscard]] cv::Mat ReadFitsImage(const std::string& path);

}  // namespace ulmora::cli
