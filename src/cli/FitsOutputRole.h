#pragma once
// What an output image is to a FITS writer, which scales and labels the images of a run by their role.

#include <cstdint>

namespace ulmora::cli {

enum class FitsOutputRole : std::int32_t {
  main = 0,
  difference = 1,
  unscreen = 2,
};

}  // namespace ulmora::cli
