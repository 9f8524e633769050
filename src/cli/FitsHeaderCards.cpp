#include "cli/FitsHeaderCards.h"

#include "cli/FitsFile.h"
#include "cli/FitsPath.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace ulmora::cli {
namespace {

constexpr std::size_t kKeywordColumns = 8;

constexpr std::array<std::string_view, 27> kOwnedKeywords = {
    "simple",  "xtension", "bitpix",   "pcount",  "gcount",   "extend",   "bscale", "bzero",   "blank",
    "datamin", "datamax",  "checksum", "datasum", "creator",  "end",      "zimage", "zbitpix", "zcmptype",
    "znaxis",  "zquantiz", "zdither0", "zblank",  "zhecksum", "zdatasum", "theap",  "tfields", "naxis"};

/// Keywords that stand with a number: NAXIS1, ZTILE2, ...
constexpr std::array<std::string_view, 5> kOwnedFamilies = {"naxis", "znaxis", "ztile", "zname", "zval"};

bool IsIndexedKeyword(std::string_view keyword, std::string_view family) {
  if (!keyword.starts_with(family) || keyword.size() == family.size()) return false;
  keyword.remove_prefix(family.size());
  return std::all_of(keyword.begin(), keyword.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

/// The card as CFITSIO will write it: what is no printable ASCII character becomes a blank there.
std::string AsWritten(std::string card) {
  std::replace_if(
      card.begin(), card.end(), [](char c) { return c < ' ' || c > '~'; }, ' ');
  return card;
}

}  // namespace

std::vector<std::string> ReadHeaderCards(fitsfile* file, const std::string& path) {
  int status = 0;
  int count = 0;
  fits_get_hdrspace(file, &count, nullptr, &status);
  CheckFits(status, "Inspecting header", path);
  std::vector<std::string> cards;
  cards.reserve(static_cast<std::size_t>(std::max(count, 0)));
  for (int number = 1; number <= count; ++number) {
    std::array<char, FLEN_CARD> card{};
    fits_read_record(file, number, card.data(), &status);
    CheckFits(status, "Reading header", path);
    cards.emplace_back(card.data());
  }
  return cards;
}

std::string HeaderKeyword(const std::string& card) {
  std::string keyword = card.substr(0, kKeywordColumns);
  while (keyword.ends_with(' ')) keyword.pop_back();
  return Lowercase(keyword);
}

bool IsOutputOwnedHeaderCard(const std::string& card) {
  const std::string keyword = HeaderKeyword(card);
  if (std::find(kOwnedKeywords.begin(), kOwnedKeywords.end(), keyword) != kOwnedKeywords.end()) return true;
  return std::any_of(kOwnedFamilies.begin(), kOwnedFamilies.end(),
                     [&](std::string_view family) { return IsIndexedKeyword(keyword, family); });
}

void WritePreservedHeaderCards(fitsfile* file, const FitsMetadata* metadata, const std::string& path) {
  if (metadata == nullptr) return;
  int status = 0;
  for (const std::string& card : metadata->headerCards) {
    // A damaged keyword must not turn into a structural one on its way out.
    if (IsOutputOwnedHeaderCard(AsWritten(card))) continue;
    fits_write_record(file, card.c_str(), &status);
    CheckFits(status, "Preserving header metadata", path);
  }
}

}  // namespace ulmora::cli
