#pragma once
// How the samples of a TIFF image lie in its file, which of these layouts the image library reads wrongly without a
// word, and a way to have it read them rightly all the same: a part of the file, lifted into a simple TIFF in memory.

#include "cli/TiffDirectory.h"

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace ulmora::cli {

/// The fields of a first directory that matter, with the format's defaults. Photometric interpretations: 0 white is
/// zero, 1 black is zero, 2 RGB, 3 palette, 5 CMYK, 6 YCbCr, 8 to 10 Lab.
struct TiffSamples {
  TiffDirectory directory;
  std::uint64_t width = 0;    ///< pixels
  std::uint64_t height = 0;   ///< pixels
  std::uint64_t bits = 1;     ///< per sample
  std::uint64_t samples = 1;  ///< per pixel
  bool countsSamples = true;  ///< false where the number of samples is not in the file but follows from the colours
  std::uint64_t compression = 1;
  std::uint64_t photometric = 1;
  std::uint64_t sampleFormat = 1;  ///< 1 unsigned integer, 2 signed, 3 floating point
  std::uint64_t predictor = 1;     ///< 2: each sample is stored as its difference from the one a pixel before
  std::uint64_t tileWidth = 0;     ///< 0 for an image in strips
  std::uint64_t tileLength = 0;
  bool separatePlanes = false;
};

enum class TiffReading {
  Plain,           ///< the image library reads it rightly, or refuses it itself
  InvertedLevels,  ///< white is zero in more than 8 bits: the library gives the stored levels, uninverted
  SeparatePlanes,  ///< the library reads the first plane as if it were interleaved, and memory of nobody behind it
  UnnamedColours,  ///< three or four samples that the file does not call RGB: the library drops all but one; or three
                   ///< that it does not count: the library takes wrong ones
  GrayAndExtra,    ///< two samples: the library drops the second, and 16-bit ones to 8 bits
  Refused,         ///< none of the above helps, and what the library would give is wrong
};

/// The layout of the first image of a file, whatever state its description is in; nothing if it has no TIFF signature.
/// Throws std::invalid_argument for a TIFF whose directory cannot be read: what the image library would make of such a
/// file, nobody could check.
[[nodiscard]] std::optional<TiffSamples> InspectTiff(const std::string& path);

[[nodiscard]] TiffReading HowToRead(const TiffSamples& tiff);

/// What to lift out of a file.
struct TiffPart {
  std::uint64_t firstPlane = 0;   ///< for separate planes; one plane is lifted
  std::uint64_t samples = 1;      ///< per pixel of the new image
  std::uint64_t photometric = 1;  ///< of the new image
  std::uint64_t widthFactor = 1;  ///< pixels of the new image for each old one
  bool keepPredictor = true;
  bool keepOrientation = true;
};

/// A classic TIFF of the given part, its compressed data unchanged. Empty if the file lacks fields that this needs, or
/// if the result would exceed what the image library can be handed. std::invalid_argument if the file is cut.
[[nodiscard]] std::vector<std::uint8_t> LiftTiffPart(const std::string& path, const TiffSamples& tiff,
                                                     const TiffPart& part);

}  // namespace ulmora::cli
