#ifdef QV_HAVE_IMAGEUNITS
#include <gtest/gtest.h>

#include "Framework/CIImage+QVFilterImageUnitsAdditions.h"
#include "PlugInTestSupport.h"

using qvtest::imageOfSize;

namespace {

const CGAffineTransform kQuarterTurn = CGAffineTransformRotate(CGAffineTransformIdentity, 1.5707963267948966);

}  // namespace

TEST(OrientationMatching, BandConstantsAreSinglePrecisionValues) {
  // The band's constants are 0.01f and 1.02f widened: a 100 x 99 image is landscape although
  // its ratio plus 0.01 lies within a hair of 1.02.
  EXPECT_EQ(static_cast<double>(0.01f), 0.009999999776482582);
  EXPECT_EQ(static_cast<double>(1.02f), 1.0199999809265137);
  EXPECT_EQ(QVFilterImageOrientationClass(imageOfSize(100, 99)), 1);
  EXPECT_EQ(QVFilterImageOrientationClass(imageOfSize(100, 101)), 0);  // square
}

TEST(OrientationMatching, Classes) {
  EXPECT_EQ(QVFilterImageOrientationClass(imageOfSize(100, 100)), 0);
  EXPECT_EQ(QVFilterImageOrientationClass(imageOfSize(200, 100)), 1);
  EXPECT_EQ(QVFilterImageOrientationClass(imageOfSize(100, 200)), 2);
  // The lower bound is exactly 1.0: ratio 0.99 gives t = 0.99999999977..., below it.
  EXPECT_EQ(QVFilterImageOrientationClass(imageOfSize(99, 100)), 2);
  // Nil and empty images have a ratio that is not a number: portrait.
  EXPECT_EQ(QVFilterImageOrientationClass(CIImage()), 2);
  EXPECT_EQ(QVFilterImageOrientationClass(imageOfSize(0, 0)), 2);
}

TEST(OrientationMatching, SquareNeverTurns) {
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(100, 100), imageOfSize(200, 100)),
            CGAffineTransformIdentity);
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(200, 100), imageOfSize(100, 100)),
            CGAffineTransformIdentity);
}

TEST(OrientationMatching, NearSquareBand) {
  // 100 x 99 is landscape, so it turns to match a portrait image; 100 x 101 is square and
  // does not.
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(100, 99), imageOfSize(100, 200)), kQuarterTurn);
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(100, 101), imageOfSize(200, 100)),
            CGAffineTransformIdentity);
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(100, 101), imageOfSize(100, 200)),
            CGAffineTransformIdentity);
}

TEST(OrientationMatching, LandscapeAgainstPortraitTurnsAQuarter) {
  const CIImage landscape = imageOfSize(200, 100);
  const CIImage portrait = imageOfSize(100, 200);
  const CGAffineTransform t = affineTransformForMatchingOrientationOfImage(landscape, portrait);
  EXPECT_EQ(t, kQuarterTurn);
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(portrait, landscape), kQuarterTurn);

  // Applied, the extent lies left of the origin: x from -100 to 0.
  const CIImage turned = imageByApplyingTransformToMatchOrientationOfImage(landscape, portrait);
  ASSERT_TRUE(turned);
  const CGRect e = turned.extent();
  EXPECT_NEAR(CGRectGetMinX(e), -100, 1e-9);
  EXPECT_NEAR(CGRectGetMaxX(e), 0, 1e-9);
  EXPECT_NEAR(CGRectGetMinY(e), 0, 1e-9);
  EXPECT_NEAR(CGRectGetMaxY(e), 200, 1e-9);
}

TEST(OrientationMatching, SameClassGivesIdentity) {
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(300, 100), imageOfSize(200, 100)),
            CGAffineTransformIdentity);
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(100, 300), imageOfSize(100, 200)),
            CGAffineTransformIdentity);
  // Identity leaves the image where it was.
  const CIImage same = imageByApplyingTransformToMatchOrientationOfImage(imageOfSize(300, 100), imageOfSize(200, 100));
  EXPECT_RECT_EQ(same.extent(), 0, 0, 300, 100);
}

TEST(OrientationMatching, NilOtherImageIsPortrait) {
  // Matching against nil: the nil image is portrait, so a landscape receiver is turned.
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(200, 100), CIImage()), kQuarterTurn);
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(100, 200), CIImage()), CGAffineTransformIdentity);
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(imageOfSize(100, 100), CIImage()), CGAffineTransformIdentity);
}

TEST(OrientationMatching, NilReceiver) {
  // A nil receiver is portrait too, and turning it yields nil.
  EXPECT_EQ(affineTransformForMatchingOrientationOfImage(CIImage(), imageOfSize(200, 100)), kQuarterTurn);
  EXPECT_FALSE(imageByApplyingTransformToMatchOrientationOfImage(CIImage(), imageOfSize(200, 100)));
}
#endif
