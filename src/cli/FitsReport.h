#pragma once
// What a FITS read says about its file: the diagnostic lines and the texts that are built from numbers.

#include "cli/CliDiagnostics.h"
#include "cli/FitsMetadata.h"
#include "cli/FitsSamples.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ulmora::cli {

/// The DATAMIN and DATAMAX cards that could be read as numbers.
struct FitsHeaderExtrema {
  std::optional<double> datamin;
  std::optional<double> datamax;
};

/// Format of the selected HDU, and its eleven cards of structure, scaling and units.
void ReportFitsFormat(const FitsMetadata& metadata, const FitsAxes& axes, const CliDiagnostics& diagnostics);

/// Range of all samples with the count of undefined ones, then of each channel.
void ReportFitsRanges(const FitsRanges& ranges, std::uint64_t undefined, double divisor,
                      const CliDiagnostics& diagnostics);

/// How the header's extrema compare with the decoded ones. They are reported and never scale anything.
void ReportHeaderExtrema(const FitsHeaderExtrema& header, const InputRange& range, const CliDiagnostics& diagnostics);

void ReportFitsConversion(double divisor, bool linear, const CliDiagnostics& diagnostics);

/// In linear mode: warns of samples above 1, which are clipped, and tells the range that is left.
void ReportLinearPreparation(const InputRange& range, double divisor, const CliDiagnostics& diagnostics);

/// The refusal of a floating-point image outside [0,1].
[[nodiscard]] std::string UnnormalizedFitsText(const InputRange& range, const FitsHeaderExtrema& header);

}  // namespace ulmora::cli
