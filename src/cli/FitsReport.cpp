#include "cli/FitsReport.h"

#include "cli/FitsHeaderCards.h"

#include <fitsio.h>

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>

namespace ulmora::cli {
namespace {

std::ostringstream PreciseText() {
  std::ostringstream text;
  text << std::setprecision(17);
  return text;
}

const char* SampleTypeName(int type) {
  switch (type) {
    case BYTE_IMG:
      return "uint8";
    case SBYTE_IMG:
      return "int8";
    case SHORT_IMG:
      return "int16";
    case USHORT_IMG:
      return "uint16";
    case LONG_IMG:
      return "int32";
    case ULONG_IMG:
      return "uint32";
    case LONGLONG_IMG:
      return "int64";
    case ULONGLONG_IMG:
      return "uint64";
    case FLOAT_IMG:
      return "float32";
    case DOUBLE_IMG:
      return "float64";
    default:
      return "unknown";
  }
}

/// What stands for a card that the header does not have.
std::string MissingCard(const std::string& keyword) {
  if (keyword == "bscale") return keyword + "=missing (default 1)";
  if (keyword == "bzero") return keyword + "=missing (default 0)";
  return keyword + "=missing/not applicable";
}

const char* CompareExtrema(const FitsHeaderExtrema& header, const InputRange& range) {
  if (range.finite == 0) return "unavailable";
  // Written so that a card that is no number disagrees with everything.
  const auto disagrees = [](const std::optional<double>& card, double found) { return card && !(*card == found); };
  if (disagrees(header.datamin, range.minimum) || disagrees(header.datamax, range.maximum)) {
    return "disagrees with decoded samples";
  }
  if (!header.datamin && !header.datamax) return "not supplied";
  return "agrees for supplied extrema";
}

}  // namespace

void ReportFitsFormat(const FitsMetadata& metadata, const FitsAxes& axes, const CliDiagnostics& diagnostics) {
  std::ostringstream text;
  text << "format=FITS stored=" << SampleTypeName(metadata.bitpix) << " BITPIX=" << metadata.bitpix
       << " equivalent=" << SampleTypeName(metadata.equivalentType) << " equivalent_type=" << metadata.equivalentType
       << " NAXIS=" << axes.count << " axes=" << axes.lengths[0] << ',' << axes.lengths[1];
  if (axes.count == 3) text << ',' << axes.lengths[2];
  text << " interpretation=" << (axes.count == 2 ? "mono" : "RGB cube");
  diagnostics.Info("input_format", text.str());

  static constexpr std::array<const char*, 11> kKeywords = {
      "bitpix", "naxis", "naxis1", "naxis2", "naxis3", "bscale", "bzero", "datamin", "datamax", "bunit", "blank"};
  for (const std::string keyword : kKeywords) {
    const auto card = std::find_if(metadata.headerCards.begin(), metadata.headerCards.end(),
                                   [&](const std::string& text_) { return HeaderKeyword(text_) == keyword; });
    diagnostics.Info("fits_header", card != metadata.headerCards.end() ? *card : MissingCard(keyword));
  }
}

void ReportFitsRanges(const FitsRanges& ranges, std::uint64_t undefined, double divisor,
                      const CliDiagnostics& diagnostics) {
  diagnostics.Info("input_range", ranges.overall.Describe(divisor) + " undefined=" + std::to_string(undefined));
  for (std::size_t c = 0; c < ranges.channels.size(); ++c) {
    diagnostics.Info("channel_range", "channel=" + std::to_string(c + 1) + ' ' + ranges.channels[c].Describe(divisor));
  }
}

void ReportHeaderExtrema(const FitsHeaderExtrema& header, const InputRange& range, const CliDiagnostics& diagnostics) {
  diagnostics.Info("header_extrema",
                   std::string("DATAMIN/DATAMAX do not determine scale; comparison=") + CompareExtrema(header, range));
}

void ReportFitsConversion(double divisor, bool linear, const CliDiagnostics& diagnostics) {
  std::ostringstream text = PreciseText();
  text << "physical=x/K; fixed divisor K=" << divisor
       << "; offset=0; BSCALE/BZERO applied once by CFITSIO; no observed-range rescaling; linear=" << linear
       << "; physical_read=float64; "
       << (linear ? "MTF/inverse=float64; inference=float32" : "inference=float32 (no MTF)");
  diagnostics.Info("input_conversion", text.str());
}

void ReportLinearPreparation(const InputRange& range, double divisor, const CliDiagnostics& diagnostics) {
  if (range.aboveOne != 0) {
    std::ostringstream text = PreciseText();
    text << "--linear clips " << range.aboveOne << " of " << range.samples << " samples ("
         << 100.0 * static_cast<double>(range.aboveOne) / static_cast<double>(range.samples)
         << "%) above 1 after fixed sample-format conversion; normalized maximum=" << range.maximum / divisor
         << ". Discarded highlights will not be restored. Normalize float ADU data upstream.";
    diagnostics.Warn(CliWarning::DataLoss, text.str());
  }
  std::ostringstream text = PreciseText();
  text << "upper-clipped=" << range.aboveOne << "; pre-MTF range=[" << std::min(range.minimum / divisor, 1.0) << ','
       << std::min(range.maximum / divisor, 1.0) << "]; negatives retained until MTF";
  diagnostics.Info("input_prepared", text.str());
}

std::string UnnormalizedFitsText(const InputRange& range, const FitsHeaderExtrema& header) {
  std::ostringstream text = PreciseText();
  text << "Floating-point FITS input samples must be normalized to [0,1]. Observed finite range: [" << range.minimum
       << ", " << range.maximum << ']';
  if (header.datamin || header.datamax) text << ". Header diagnostics:";
  if (header.datamin) text << " DATAMIN=" << *header.datamin;
  if (header.datamax) text << " DATAMAX=" << *header.datamax;
  text << ". Normalize the image before invoking the CLI; header extrema are not used to rescale it.";
  return text.str();
}

}  // namespace ulmora::cli
