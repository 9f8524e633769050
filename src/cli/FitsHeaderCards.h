#pragma once
// Header cards as raw text: read whole, sorted by keyword into those that an output decides for itself and those that
// it preserves, written back unchanged.

#include "cli/FitsMetadata.h"

#include <fitsio.h>

#include <string>
#include <vector>

namespace ulmora::cli {

/// All cards of the current HDU but END, each at most 80 characters, as fits_read_record delivers them.
/// std::invalid_argument if CFITSIO cannot read them.
[[nodiscard]] std::vector<std::string> ReadHeaderCards(fitsfile* file, const std::string& path);

/// The keyword field of a card, its first 8 columns, without trailing blanks and in lower case. No equals sign is
/// looked for, so a card without the standard layout is taken literally.
[[nodiscard]] std::string HeaderKeyword(const std::string& card);

/// Whether the output writes this keyword itself or must not carry it: structure, scaling, extrema, integrity, creator,
/// and the tile-compression convention's twins of them.
[[nodiscard]] bool IsOutputOwnedHeaderCard(const std::string& card);

/// Appends all cards of the source that are not output-owned, in source order. Nothing for null metadata.
/// std::invalid_argument for a card that CFITSIO will not write.
void WritePreservedHeaderCards(fitsfile* file, const FitsMetadata* metadata, const std::string& path);

}  // namespace ulmora::cli
