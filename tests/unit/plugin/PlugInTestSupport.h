// Shared helpers of the plug-in's unit tests: the built bundle loaded once per test program,
// and cheap images of a given extent.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIPlugIn.h"

namespace qvtest {

// Loads the bundle that the build made (QV_BUNDLE_DIR) and fails the test if it cannot.
inline void loadBuiltBundle() {
  std::string error;
  ASSERT_TRUE(CIPlugIn::loadPlugIn(QV_BUNDLE_DIR, &error)) << error;
}

// A grey image of exactly the given extent (a constant colour cropped: no pixels are made).
inline CIImage imageWithExtent(double x, double y, double width, double height) {
  return CIImage::imageWithColor(CIColor::colorWithRed(0.5, 0.5, 0.5, 1.0))
      .imageByCroppingToRect(CGRectMake(x, y, width, height));
}

inline CIImage imageOfSize(double width, double height) { return imageWithExtent(0, 0, width, height); }

// A filter of the bundle, created by name with its defaults set.
inline CIFilterRef plugInFilter(const std::string& name) {
  CIFilterRef filter = CIFilter::filterWithName(name);
  if (filter) filter->setDefaults();
  return filter;
}

inline CIImage outputOf(const CIFilterRef& filter) {
  return filter ? CIImage::fromValue(filter->valueForKey(kCIOutputImageKey)) : CIImage();
}

class PlugInTest : public ::testing::Test {
 protected:
  void SetUp() override { loadBuiltBundle(); }
};

}  // namespace qvtest

// Rectangle comparison with a readable failure message.
#define EXPECT_RECT_EQ(actual, x, y, w, h)                                                                  \
  do {                                                                                                      \
    const CGRect qv_r = (actual);                                                                           \
    EXPECT_EQ(qv_r, CGRectMake((x), (y), (w), (h))) << "actual " << NSStringFromRect(qv_r);                 \
  } while (0)
