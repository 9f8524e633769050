#pragma once
// Comparison of images and of failures, with messages that say where and what.

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <cmath>
#include <cstring>
#include <exception>
#include <sstream>
#include <string>
#include <typeinfo>

namespace ulmora::test {

/// Equal size, type and every bit of every sample, so that -0.0 differs from 0.0 and NaN equals itself.
inline testing::AssertionResult SameBits(const cv::Mat& actual, const cv::Mat& expected) {
  if (actual.size() != expected.size() || actual.type() != expected.type()) {
    return testing::AssertionFailure() << "size " << actual.size() << ", type " << actual.type() << "; expected "
                                       << expected.size() << ", type " << expected.type();
  }
  for (int y = 0; y < actual.rows; ++y) {
    for (int x = 0; x < actual.cols; ++x) {
      if (std::memcmp(actual.ptr(y, x), expected.ptr(y, x), actual.elemSize()) == 0) continue;
      std::ostringstream found;
      const cv::Rect pixel(x, y, 1, 1);
      found << actual(pixel) << ", expected " << expected(pixel);
      return testing::AssertionFailure() << "pixel (" << x << ", " << y << ") is " << found.str();
    }
  }
  return testing::AssertionSuccess();
}

/// Equal size and type, and no sample further apart than `tolerance`. NaN is never near.
inline testing::AssertionResult Near(const cv::Mat& actual, const cv::Mat& expected, double tolerance) {
  if (actual.size() != expected.size() || actual.type() != expected.type()) {
    return testing::AssertionFailure() << "size " << actual.size() << ", type " << actual.type() << "; expected "
                                       << expected.size() << ", type " << expected.type();
  }
  const double distance = cv::norm(actual, expected, cv::NORM_INF);
  // NORM_INF skips NaN, the sum of differences does not.
  if (!std::isnan(cv::norm(actual, expected, cv::NORM_L1)) && distance <= tolerance) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "largest difference " << distance << ", allowed " << tolerance;
}

/// The text of the exception that the call throws, which must be of exactly type E; otherwise a text that tells what
/// happened instead.
template <typename E, typename Call>
std::string ThrownText(Call&& call) {
  try {
    call();
  } catch (const E& error) {
    if (typeid(error) == typeid(E)) return error.what();
    return std::string("an exception of derived type ") + typeid(error).name();
  } catch (const std::exception& error) {
    return std::string("an exception of another type: ") + error.what();
  }
  return "no exception";
}

}  // namespace ulmora::test
