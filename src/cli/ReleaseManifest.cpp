#include "cli/ReleaseManifest.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

namespace ulmora::cli {
namespace {

constexpr const char* kManifestSchema = "quorvanthine.cli-tools.latest.v1";

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

/// The number that the text begins with, at most the largest 32-bit signed integer; 0 without digits.
std::int32_t ParsePositiveInt(const std::string& text) {
  constexpr std::int64_t kLargest = std::numeric_limits<std::int32_t>::max();
  std::int64_t value = 0;
  for (const char c : text) {
    if (!IsDigit(c)) break;
    value = value * 10 + (c - '0');
    if (value > kLargest) return kLargest;
  }
  return static_cast<std::int32_t>(value);
}

/// The parts of a dotted version, at least three. The end of the text, or anything but a digit or a dot, ends a part.
std::vector<std::int32_t> ParseVersionParts(const std::string& text) {
  std::vector<std::int32_t> parts;
  std::string piece;
  for (const char c : text) {
    if (c == '.') {
      parts.push_back(ParsePositiveInt(piece));
      piece.clear();
    } else if (IsDigit(c)) {
      piece += c;
    } else {
      break;
    }
  }
  parts.push_back(ParsePositiveInt(piece));
  while (parts.size() < 3) parts.push_back(0);
  return parts;
}

/// The first run of digits, wherever it stands.
std::int32_t ParseBuild(const std::string& text) {
  const auto first = std::find_if(text.begin(), text.end(), IsDigit);
  return ParsePositiveInt(std::string(first, std::find_if_not(first, text.end(), IsDigit)));
}

std::string JsonKey(const std::string& key) {
  return '"' + key + '"';
}

/// Index of the quote that ends the string which begins at the quote `start`, or npos.
std::size_t FindStringEnd(const std::string& text, std::size_t start) {
  bool escaped = false;
  for (std::size_t i = start + 1; i < text.size(); ++i) {
    if (escaped) {
      escaped = false;
    } else if (text[i] == '\\') {
      escaped = true;
    } else if (text[i] == '"') {
      return i;
    }
  }
  return std::string::npos;
}

/// Index of the brace that ends the object which begins at the brace `start`, or npos. Braces in strings do not count.
std::size_t FindObjectEnd(const std::string& text, std::size_t start) {
  std::size_t depth = 0;
  for (std::size_t i = start; i < text.size(); ++i) {
    if (text[i] == '"') {
      i = FindStringEnd(text, i);
      if (i == std::string::npos) return i;
    } else if (text[i] == '{') {
      ++depth;
    } else if (text[i] == '}' && --depth == 0) {
      return i;
    }
  }
  return std::string::npos;
}

/// Index of the first `opening` behind the colon behind the first occurrence of the quoted key, or npos.
std::size_t FindValue(const std::string& text, const std::string& key, char opening) {
  const std::string quoted = JsonKey(key);
  const std::size_t found = text.find(quoted);
  if (found == std::string::npos) return found;
  const std::size_t colon = text.find(':', found + quoted.size());
  if (colon == std::string::npos) return colon;
  return text.find(opening, colon);
}

bool ExtractString(const std::string& text, const std::string& key, std::string& output) {
  const std::size_t start = FindValue(text, key, '"');
  if (start == std::string::npos) return false;
  const std::size_t end = FindStringEnd(text, start);
  if (end == std::string::npos) return false;
  output = text.substr(start + 1, end - start - 1);
  return true;
}

bool ExtractObject(const std::string& text, const std::string& key, std::string& output) {
  const std::size_t start = FindValue(text, key, '{');
  if (start == std::string::npos) return false;
  const std::size_t end = FindObjectEnd(text, start);
  if (end == std::string::npos) return false;
  output = text.substr(start, end - start + 1);
  return true;
}

int Compare(std::int32_t a, std::int32_t b) {
  if (a == b) return 0;
  return a < b ? -1 : 1;
}

}  // namespace

bool ParseLatestRelease(const std::string& manifest, const std::string& tool, const std::string& platform,
                        LatestRelease& release) {
  std::string schema;
  if (!ExtractString(manifest, "schema", schema) || schema != kManifestSchema) return false;
  std::string tools;
  std::string toolObject;
  std::string latest;
  std::string platformObject;
  if (!ExtractObject(manifest, "tools", tools) || !ExtractObject(tools, tool, toolObject) ||
      !ExtractObject(toolObject, "latest", latest) || !ExtractObject(latest, platform, platformObject)) {
    return false;
  }
  if (!ExtractString(toolObject, "download_url", release.download_url) ||
      !ExtractString(platformObject, "version", release.version) ||
      !ExtractString(platformObject, "build", release.build)) {
    return false;
  }
  return !release.version.empty() && !release.build.empty() && !release.download_url.empty();
}

int CompareVersionBuild(const std::string& versionA, const std::string& buildA, const std::string& versionB,
                        const std::string& buildB) {
  std::vector<std::int32_t> a = ParseVersionParts(versionA);
  std::vector<std::int32_t> b = ParseVersionParts(versionB);
  const std::size_t length = std::max(a.size(), b.size());
  a.resize(length, 0);
  b.resize(length, 0);
  for (std::size_t i = 0; i < length; ++i) {
    if (a[i] != b[i]) return Compare(a[i], b[i]);
  }
  return Compare(ParseBuild(buildA), ParseBuild(buildB));
}

}  // namespace ulmora::cli
