#pragma once
// The library form of the tile loop: everything passed in, everything checked, progress by callback, cancellable.

#include <opencv2/core.hpp>

#include <functional>
#include <stdexcept>

namespace ulmora::core {

/// The progress callback asked for the end of a run: "Processing cancelled.".
class Cancelled : public std::runtime_error {
 public:
  Cancelled();
};

/// Runs an image through a tile function in overlapping tiles and blends the results.
///
/// `image` is CV_32FC3 and at least `window` pixels in both directions; `stride` is at most `window` and differs from
/// it by an even number. `infer` gets a continuous CV_32FC3 tile of window x window pixels, which it must not keep, and
/// returns a new one of the same shape, which the loop scales in place; tiles of one colour pass it by. `progress` may
/// be empty; it is called with the tiles done and their total, before the first tile and after each, and returns true
/// to go on. The result is a CV_32FC3 image of the input's size with storage of its own.
///
/// Throws std::invalid_argument for an unfit image, window or stride, std::runtime_error for an unfit result of
/// `infer` (shape, type, a sample that is not finite), Cancelled if `progress` returns false, and what `infer` throws.
[[nodiscard]] cv::Mat RunTiledInference(const cv::Mat& image, int window, int stride,
                                        const std::function<cv::Mat(const cv::Mat&)>& infer,
                                        const std::function<bool(int, int)>& progress);

}  // namespace ulmora::core
