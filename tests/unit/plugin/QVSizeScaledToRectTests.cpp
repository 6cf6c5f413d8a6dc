#ifdef QV_HAVE_IMAGEUNITS
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Framework/QVSizeScaledToRect.h"
#include "PlugInTestSupport.h"

TEST(QVSizeScaledToRect, GravityNamesArePlatformStrings) {
  EXPECT_STREQ(kCAGravityResizeAspect, "resizeAspect");
  EXPECT_STREQ(kCAGravityResizeAspectFill, "resizeAspectFill");
  EXPECT_STRNE(kQVGravityResizeAspectMax, kCAGravityResizeAspect);
  EXPECT_STRNE(kQVGravityResizeAspectMax, kCAGravityResizeAspectFill);
}

TEST(QVSizeScaledToRect, AspectFitsInsideAndCentres) {
  EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(200, 200), CGRectMake(0, 0, 300, 200), kCAGravityResizeAspect), 50, 0,
                 200, 200);
  // Scaled up to touch the two longer sides, centred on the other axis.
  EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(10, 20), CGRectMake(100, 100, 300, 200), kCAGravityResizeAspect), 200,
                 100, 100, 200);
}

TEST(QVSizeScaledToRect, AspectFillCoversAndSplitsOverflow) {
  EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(200, 200), CGRectMake(0, 0, 300, 200), kCAGravityResizeAspectFill), 0,
                 -50, 300, 300);
  EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(10, 20), CGRectMake(100, 100, 300, 200), kCAGravityResizeAspectFill),
                 100, -100, 300, 600);
}

TEST(QVSizeScaledToRect, AspectMaxCoversKeepingProportions) {
  // A texture over an image reaches every edge of it, keeping its proportions, centred.
  const CGRect r = QVSizeScaledToRect(CGSizeMake(400, 100), CGRectMake(0, 0, 1000, 800), kQVGravityResizeAspectMax);
  EXPECT_RECT_EQ(r, -1100, 0, 3200, 800);
  EXPECT_EQ(r.size.width / r.size.height, 4.0);
  // Smaller textures are scaled up to cover.
  EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(256, 256), CGRectMake(10, 20, 1000, 600), kQVGravityResizeAspectMax),
                 10, -180, 1000, 1000);
}

TEST(QVSizeScaledToRect, AspectMaxPicturePlacedInFrameFillsIt) {
  // The texture border fits the picture into the frame's rectangle with the max gravity, then
  // the frame into that with the aspect gravity: the frame comes back to its own rectangle.
  const CGRect frame = CGRectMake(0, 0, 500, 400);
  const CGRect picture = QVSizeScaledToRect(CGSizeMake(300, 100), frame, kQVGravityResizeAspectMax);
  EXPECT_RECT_EQ(picture, -350, 0, 1200, 400);
  EXPECT_RECT_EQ(QVSizeScaledToRect(frame.size, picture, kCAGravityResizeAspect), 0, 0, 500, 400);
}

TEST(QVSizeScaledToRect, SameProportionsGiveTheRectangleForEveryGravity) {
  for (const char* g : {kCAGravityResizeAspect, kCAGravityResizeAspectFill, kQVGravityResizeAspectMax})
    EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(30, 20), CGRectMake(5, 6, 300, 200), g), 5, 6, 300, 200);
}

TEST(QVSizeScaledToRect, UnknownGravityStretchesOverTheRectangle) {
  EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(30, 20), CGRectMake(5, 6, 70, 80), "center"), 5, 6, 70, 80);
}

TEST(QVSizeScaledToRect, DegenerateSizeGivesEmptyRectangleAtCentre) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (CGSize s : {CGSizeMake(0, 0), CGSizeMake(0, 10), CGSizeMake(10, -1), CGSizeMake(nan, 10)})
    for (const char* g : {kCAGravityResizeAspect, kCAGravityResizeAspectFill, kQVGravityResizeAspectMax})
      EXPECT_RECT_EQ(QVSizeScaledToRect(s, CGRectMake(0, 0, 300, 200), g), 150, 100, 0, 0);
}

TEST(QVSizeScaledToRect, EmptyTargetGivesEmptyFitAtItsOrigin) {
  EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(30, 20), CGRectZero, kCAGravityResizeAspect), 0, 0, 0, 0);
  EXPECT_RECT_EQ(QVSizeScaledToRect(CGSizeMake(30, 20), CGRectZero, kQVGravityResizeAspectMax), 0, 0, 0, 0);
}
#endif
