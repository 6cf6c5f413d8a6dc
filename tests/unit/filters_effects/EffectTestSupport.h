// Helpers of the effect filters' tests: solid and patterned images, and pixel comparisons.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "FilterTestSupport.h"
#include "RenderSupport.h"

namespace effects {

// A solid colour (straight components) over exactly `rect`.
inline CIImage solid(double r, double g, double b, double a, const CGRect& rect) {
  return CIImage::imageWithColor(CIColor::colorWithRed(r, g, b, a)).imageByCroppingToRect(rect);
}

// The pixel of `image` whose lower-left corner is (x, y), without colour management.
inline std::array<float, 4> px(const CIImage& image, double x, double y) { return pixelAt(image, x, y); }

inline void expectPixelNear(const std::array<float, 4>& actual, const std::array<float, 4>& expected, float tolerance,
                            const char* what) {
  for (int c = 0; c < 4; ++c)
    EXPECT_NEAR(actual[c], expected[c], tolerance) << what << " channel " << c;
}

// Working-space pixels of `rect` of two images, compared value by value.
inline float maxDifference(const CIImage& a, const CIImage& b, const CGRect& rect) {
  CIContextOptions opts;
  opts.colorManagement = false;
  return maxAbsDifference(renderRGBAf(a, rect, opts), renderRGBAf(b, rect, opts));
}

// A filter of the bundle with its defaults, the given inputs set, and its output.
inline CIImage outputWith(const std::string& name, const std::vector<std::pair<std::string, Value>>& inputs) {
  CIFilterRef filter = qvtest::makeFilter(name);
  EXPECT_TRUE(filter) << name;
  if (!filter) return {};
  for (const auto& [key, value] : inputs) filter->setValue(value, key);
  return qvtest::filterOutput(filter);
}

}  // namespace effects

#define EXPECT_EXTENT(image, x, y, w, h)                                                                       \
  do {                                                                                                         \
    const CGRect qv_e = (image).extent();                                                                      \
    EXPECT_EQ(qv_e, CGRectMake((x), (y), (w), (h))) << "actual " << NSStringFromRect(qv_e);                    \
  } while (0)
