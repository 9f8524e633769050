#pragma once
// FITS files for tests, written and read with CFITSIO directly.

#include "cli/CliDiagnostics.h"
#include "cli/FitsMetadata.h"

#include <fitsio.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace ulmora::test {

inline void Require(int status) {
  if (status != 0) throw std::runtime_error("CFITSIO status " + std::to_string(status));
}

/// A new file whose primary HDU has these axes and storage samples, and these cards verbatim.
inline void WriteFits(const std::string& path, int bitpix, std::vector<long> axes, std::vector<double> samples,
                      const std::vector<std::string>& cards = {}) {
  int status = 0;
  fitsfile* file = nullptr;
  std::remove(path.c_str());
  fits_create_diskfile(&file, path.c_str(), &status);
  fits_create_img(file, bitpix, static_cast<int>(axes.size()), axes.data(), &status);
  std::vector<long> first(axes.size(), 1);
  fits_write_pix(file, TDOUBLE, first.data(), static_cast<LONGLONG>(samples.size()), samples.data(), &status);
  for (const std::string& card : cards) fits_write_record(file, card.c_str(), &status);
  int closing = 0;
  if (file != nullptr) fits_close_file(file, &closing);
  Require(status);
}

/// What a written file holds.
struct FitsContent {
  int bitpix = 0;
  std::vector<long> axes;
  std::vector<double> physical;
  std::vector<std::string> cards;

  /// The cards of this keyword, in order.
  [[nodiscard]] std::vector<std::string> Cards(const std::string& keyword) const {
    std::vector<std::string> found;
    for (const std::string& card : cards) {
      if (card.substr(0, 8) == (keyword + std::string(8, ' ')).substr(0, 8)) found.push_back(card);
    }
    return found;
  }
  /// The text of all HISTORY cards, joined.
  [[nodiscard]] std::string History() const {
    std::string text;
    for (const std::string& card : Cards("HISTORY")) text += card.substr(8) + '\n';
    return text;
  }
};

inline FitsContent ReadFits(const std::string& path) {
  int status = 0;
  fitsfile* file = nullptr;
  FitsContent content;
  fits_open_diskfile(&file, path.c_str(), READONLY, &status);
  int count = 0;
  fits_get_img_dim(file, &count, &status);
  Require(status);
  content.axes.resize(static_cast<std::size_t>(count));
  fits_get_img_size(file, count, content.axes.data(), &status);
  fits_get_img_type(file, &content.bitpix, &status);
  std::size_t samples = 1;
  for (const long axis : content.axes) samples *= static_cast<std::size_t>(axis);
  content.physical.resize(samples);
  std::vector<long> first(content.axes.size(), 1);
  int anyNull = 0;
  fits_read_pix(file, TDOUBLE, first.data(), static_cast<LONGLONG>(samples), nullptr, content.physical.data(), &anyNull,
                &status);
  int cards = 0;
  fits_get_hdrspace(file, &cards, nullptr, &status);
  for (int i = 1; i <= cards; ++i) {
    char card[FLEN_CARD] = {};
    fits_read_record(file, i, card, &status);
    content.cards.emplace_back(card);
  }
  fits_close_file(file, &status);
  Require(status);
  return content;
}

/// Diagnostics into a string.
struct Spoken {
  std::ostringstream stream;
  [[nodiscard]] cli::CliDiagnostics To() { return {false, false, &stream}; }
  [[nodiscard]] std::string Text() const { return stream.str(); }
};

}  // namespace ulmora::test
