#pragma once
// From processed samples to the values that a FITS file stores: physical units, restored source samples, and integer
// storage values that are chosen here, so that rounding and clipping are known and can be counted.

#include "cli/FitsMetadata.h"
#include "cli/FitsOutputRole.h"

#include <opencv2/core.hpp>

#include <cstdint>
#include <span>
#include <vector>

namespace ulmora::cli {

/// The physical value of sample `index` (in file order) of a linear run's output. `sample` is normalized. Constant
/// channels, and source samples at or below the shadows point where these are restored, take the source's value, at
/// most the fixed white, in the main image and 0 in a layer. std::invalid_argument for a sample that is not finite or
/// does not fit the source's floating-point format; std::out_of_range for an index or channel that the metadata lacks.
[[nodiscard]] double LinearPhysicalSample(double sample, const FitsMetadata& metadata, FitsOutputRole role, int channel,
                                          std::size_t index);

/// std::invalid_argument unless BSCALE and BZERO can be undone.
void RequireInvertibleScaling(const FitsMetadata& metadata);

/// The storage value nearest to a physical value, halves away from zero, limited to what the sample type can hold; a
/// limited value is counted. 64-bit types are not limited here. std::invalid_argument if scaling or value are not
/// finite.
[[nodiscard]] double IntegerStorageSample(double value, const FitsMetadata& metadata, std::uint64_t& clippedCount);

/// Brings normalized samples to physical units, in place. Nothing for null metadata.
void RestorePhysicalSamples(std::span<double> samples, const FitsMetadata* metadata);

/// The image as a FITS reader would see the main output once it was encoded: CV_64F, normalized. Metadata may be null.
/// std::invalid_argument as the writer throws.
[[nodiscard]] cv::Mat ProjectFitsMainOutput(const cv::Mat& image, const FitsMetadata* metadata);

}  // namespace ulmora::cli
