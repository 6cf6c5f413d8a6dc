// The rules of rectangle and transform geometry that the image engine and the filters rely on.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <numbers>

#include "CoreGraphics/CGGeometry.h"

namespace {

void expectRectNear(const CGRect& actual, const CGRect& expected, double tolerance = 1e-12) {
  EXPECT_NEAR(actual.origin.x, expected.origin.x, tolerance) << NSStringFromRect(actual);
  EXPECT_NEAR(actual.origin.y, expected.origin.y, tolerance) << NSStringFromRect(actual);
  EXPECT_NEAR(actual.size.width, expected.size.width, tolerance) << NSStringFromRect(actual);
  EXPECT_NEAR(actual.size.height, expected.size.height, tolerance) << NSStringFromRect(actual);
}

void expectPointNear(CGPoint actual, CGPoint expected, double tolerance = 1e-12) {
  EXPECT_NEAR(actual.x, expected.x, tolerance) << NSStringFromPoint(actual);
  EXPECT_NEAR(actual.y, expected.y, tolerance) << NSStringFromPoint(actual);
}

void expectTransformNear(const CGAffineTransform& actual, const CGAffineTransform& expected,
                         double tolerance = 1e-12) {
  EXPECT_NEAR(actual.a, expected.a, tolerance) << NSStringFromCGAffineTransform(actual);
  EXPECT_NEAR(actual.b, expected.b, tolerance) << NSStringFromCGAffineTransform(actual);
  EXPECT_NEAR(actual.c, expected.c, tolerance) << NSStringFromCGAffineTransform(actual);
  EXPECT_NEAR(actual.d, expected.d, tolerance) << NSStringFromCGAffineTransform(actual);
  EXPECT_NEAR(actual.tx, expected.tx, tolerance) << NSStringFromCGAffineTransform(actual);
  EXPECT_NEAR(actual.ty, expected.ty, tolerance) << NSStringFromCGAffineTransform(actual);
}

}  // namespace

// ---- special rectangles --------------------------------------------------------------------

TEST(CGRectSpecial, NullRectangleHasInfiniteOriginAndZeroSize) {
  EXPECT_TRUE(std::isinf(CGRectNull.origin.x));
  EXPECT_GT(CGRectNull.origin.x, 0);
  EXPECT_TRUE(std::isinf(CGRectNull.origin.y));
  EXPECT_EQ(CGRectNull.size.width, 0);
  EXPECT_EQ(CGRectNull.size.height, 0);
  EXPECT_TRUE(CGRectIsNull(CGRectNull));
  EXPECT_TRUE(CGRectIsEmpty(CGRectNull));
  EXPECT_FALSE(CGRectIsInfinite(CGRectNull));
}

TEST(CGRectSpecial, NullIsNotZero) {
  EXPECT_FALSE(CGRectIsNull(CGRectZero));
  EXPECT_TRUE(CGRectIsEmpty(CGRectZero));
  EXPECT_FALSE(CGRectEqualToRect(CGRectNull, CGRectZero));
  EXPECT_TRUE(CGRectEqualToRect(CGRectNull, CGRectNull));
}

TEST(CGRectSpecial, InfiniteRectangleValues) {
  EXPECT_EQ(CGRectInfinite.origin.x, -DBL_MAX / 2);
  EXPECT_EQ(CGRectInfinite.origin.y, -DBL_MAX / 2);
  EXPECT_EQ(CGRectInfinite.size.width, DBL_MAX);
  EXPECT_EQ(CGRectInfinite.size.height, DBL_MAX);
  EXPECT_TRUE(CGRectIsInfinite(CGRectInfinite));
  EXPECT_FALSE(CGRectIsNull(CGRectInfinite));
  EXPECT_FALSE(CGRectIsEmpty(CGRectInfinite));
  EXPECT_FALSE(CGRectIsInfinite(CGRectMake(0, 0, 1e300, 1e300)));
}

TEST(CGRectSpecial, EmptyMeansZeroWidthOrHeight) {
  EXPECT_TRUE(CGRectIsEmpty(CGRectMake(5, 5, 0, 10)));
  EXPECT_TRUE(CGRectIsEmpty(CGRectMake(5, 5, 10, 0)));
  EXPECT_FALSE(CGRectIsEmpty(CGRectMake(5, 5, 10, 10)));
  EXPECT_FALSE(CGRectIsEmpty(CGRectMake(5, 5, -10, -10)));
}

// ---- standardising and accessors -------------------------------------------------------------

TEST(CGRectStandardize, NegativeSizesMoveTheOrigin) {
  EXPECT_EQ(CGRectStandardize(CGRectMake(10, 20, -4, -6)), CGRectMake(6, 14, 4, 6));
  EXPECT_EQ(CGRectStandardize(CGRectMake(10, 20, -4, 6)), CGRectMake(6, 20, 4, 6));
  EXPECT_EQ(CGRectStandardize(CGRectMake(10, 20, 4, -6)), CGRectMake(10, 14, 4, 6));
  EXPECT_EQ(CGRectStandardize(CGRectMake(1, 2, 3, 4)), CGRectMake(1, 2, 3, 4));
  EXPECT_TRUE(CGRectIsNull(CGRectStandardize(CGRectNull)));
}

TEST(CGRectGetters, MinMidMaxOfNegativeSizeRectangles) {
  const CGRect r = CGRectMake(10, 20, -4, -6);  // covers x 6..10, y 14..20
  EXPECT_EQ(CGRectGetMinX(r), 6);
  EXPECT_EQ(CGRectGetMidX(r), 8);
  EXPECT_EQ(CGRectGetMaxX(r), 10);
  EXPECT_EQ(CGRectGetMinY(r), 14);
  EXPECT_EQ(CGRectGetMidY(r), 17);
  EXPECT_EQ(CGRectGetMaxY(r), 20);
  EXPECT_EQ(CGRectGetWidth(r), 4);
  EXPECT_EQ(CGRectGetHeight(r), 6);
}

TEST(CGRectGetters, MinMidMaxOfOrdinaryRectangles) {
  const CGRect r = CGRectMake(-3, 1, 10, 4);
  EXPECT_EQ(CGRectGetMinX(r), -3);
  EXPECT_EQ(CGRectGetMidX(r), 2);
  EXPECT_EQ(CGRectGetMaxX(r), 7);
  EXPECT_EQ(CGRectGetMinY(r), 1);
  EXPECT_EQ(CGRectGetMidY(r), 3);
  EXPECT_EQ(CGRectGetMaxY(r), 5);
}

TEST(CGRectEqual, ComparesStandardisedRectangles) {
  EXPECT_TRUE(CGRectEqualToRect(CGRectMake(10, 20, -4, -6), CGRectMake(6, 14, 4, 6)));
  EXPECT_FALSE(CGRectEqualToRect(CGRectMake(10, 20, 4, 6), CGRectMake(6, 14, 4, 6)));
}

// ---- intersection ----------------------------------------------------------------------------

TEST(CGRectIntersection, OverlapOfTwoRectangles) {
  EXPECT_EQ(CGRectIntersection(CGRectMake(0, 0, 10, 10), CGRectMake(5, 5, 10, 10)), CGRectMake(5, 5, 5, 5));
  EXPECT_EQ(CGRectIntersection(CGRectMake(0, 0, 10, 10), CGRectMake(2, 3, 4, 5)), CGRectMake(2, 3, 4, 5));
}

TEST(CGRectIntersection, StandardisesNegativeSizes) {
  EXPECT_EQ(CGRectIntersection(CGRectMake(10, 10, -10, -10), CGRectMake(5, 5, 10, 10)), CGRectMake(5, 5, 5, 5));
}

TEST(CGRectIntersection, DisjointRectanglesGiveNull) {
  EXPECT_TRUE(CGRectIsNull(CGRectIntersection(CGRectMake(0, 0, 10, 10), CGRectMake(11, 0, 5, 5))));
  EXPECT_TRUE(CGRectIsNull(CGRectIntersection(CGRectMake(0, 0, 10, 10), CGRectMake(0, 20, 5, 5))));
  EXPECT_FALSE(CGRectIntersectsRect(CGRectMake(0, 0, 10, 10), CGRectMake(11, 0, 5, 5)));
}

TEST(CGRectIntersection, TouchingEdgesGiveAZeroWidthRectangleNotNull) {
  const CGRect side = CGRectIntersection(CGRectMake(0, 0, 10, 10), CGRectMake(10, 2, 5, 5));
  EXPECT_FALSE(CGRectIsNull(side));
  EXPECT_EQ(side, CGRectMake(10, 2, 0, 5));
  EXPECT_TRUE(CGRectIsEmpty(side));

  const CGRect top = CGRectIntersection(CGRectMake(0, 0, 10, 10), CGRectMake(3, 10, 2, 5));
  EXPECT_FALSE(CGRectIsNull(top));
  EXPECT_EQ(top, CGRectMake(3, 10, 2, 0));
  // Touching is not intersecting in area.
  EXPECT_FALSE(CGRectIntersectsRect(CGRectMake(0, 0, 10, 10), CGRectMake(10, 2, 5, 5)));
}

TEST(CGRectIntersection, NullOperandGivesNull) {
  EXPECT_TRUE(CGRectIsNull(CGRectIntersection(CGRectNull, CGRectMake(0, 0, 1, 1))));
  EXPECT_TRUE(CGRectIsNull(CGRectIntersection(CGRectMake(0, 0, 1, 1), CGRectNull)));
  EXPECT_TRUE(CGRectIsNull(CGRectIntersection(CGRectNull, CGRectInfinite)));
}

TEST(CGRectIntersection, WithInfiniteGivesTheOtherRectangle) {
  const CGRect r = CGRectMake(3, 4, 50, 60);
  EXPECT_EQ(CGRectIntersection(CGRectInfinite, r), r);
  EXPECT_EQ(CGRectIntersection(r, CGRectInfinite), r);
  EXPECT_TRUE(CGRectIsInfinite(CGRectIntersection(CGRectInfinite, CGRectInfinite)));
}

// ---- union -----------------------------------------------------------------------------------

TEST(CGRectUnion, BoundingBox) {
  EXPECT_EQ(CGRectUnion(CGRectMake(0, 0, 10, 10), CGRectMake(20, 5, 5, 10)), CGRectMake(0, 0, 25, 15));
  EXPECT_EQ(CGRectUnion(CGRectMake(10, 10, -10, -10), CGRectMake(20, 5, 5, 10)), CGRectMake(0, 0, 25, 15));
}

TEST(CGRectUnion, NullContributesNothing) {
  const CGRect r = CGRectMake(3, 4, 5, 6);
  EXPECT_EQ(CGRectUnion(CGRectNull, r), r);
  EXPECT_EQ(CGRectUnion(r, CGRectNull), r);
  EXPECT_TRUE(CGRectIsNull(CGRectUnion(CGRectNull, CGRectNull)));
  // A zero-size rectangle is not null: it does contribute its origin.
  EXPECT_EQ(CGRectUnion(CGRectZero, r), CGRectMake(0, 0, 8, 10));
}

TEST(CGRectUnion, InfiniteSurvives) {
  EXPECT_TRUE(CGRectIsInfinite(CGRectUnion(CGRectInfinite, CGRectMake(0, 0, 10, 10))));
  EXPECT_TRUE(CGRectIsInfinite(CGRectUnion(CGRectMake(0, 0, 10, 10), CGRectInfinite)));
  EXPECT_TRUE(CGRectIsInfinite(CGRectUnion(CGRectInfinite, CGRectNull)));
  EXPECT_TRUE(CGRectIsInfinite(CGRectUnion(CGRectNull, CGRectInfinite)));
}

// ---- inset, offset, integral -----------------------------------------------------------------

TEST(CGRectInset, ShrinksAndGrowsAroundTheCentre) {
  EXPECT_EQ(CGRectInset(CGRectMake(0, 0, 100, 50), 10, 5), CGRectMake(10, 5, 80, 40));
  EXPECT_EQ(CGRectInset(CGRectMake(0, 0, 100, 50), -10, -5), CGRectMake(-10, -5, 120, 60));
  EXPECT_EQ(CGRectInset(CGRectMake(100, 50, -100, -50), 10, 5), CGRectMake(10, 5, 80, 40));
}

TEST(CGRectInset, PastTheMiddleGivesNull) {
  EXPECT_TRUE(CGRectIsNull(CGRectInset(CGRectMake(0, 0, 10, 10), 6, 0)));
  EXPECT_TRUE(CGRectIsNull(CGRectInset(CGRectMake(0, 0, 10, 10), 0, 6)));
  // Exactly to the middle leaves a zero-size rectangle, which is not null.
  const CGRect middle = CGRectInset(CGRectMake(0, 0, 10, 10), 5, 5);
  EXPECT_FALSE(CGRectIsNull(middle));
  EXPECT_EQ(middle, CGRectMake(5, 5, 0, 0));
}

TEST(CGRectInset, NullAndInfiniteStayThemselves) {
  EXPECT_TRUE(CGRectIsNull(CGRectInset(CGRectNull, 1, 1)));
  EXPECT_TRUE(CGRectIsInfinite(CGRectInset(CGRectInfinite, 10, 10)));
}

TEST(CGRectOffset, MovesTheOrigin) {
  EXPECT_EQ(CGRectOffset(CGRectMake(1, 2, 3, 4), 10, -20), CGRectMake(11, -18, 3, 4));
  EXPECT_TRUE(CGRectIsNull(CGRectOffset(CGRectNull, 1, 1)));
  EXPECT_TRUE(CGRectIsInfinite(CGRectOffset(CGRectInfinite, 1, 1)));
}

TEST(CGRectIntegral, FloorsTheOriginAndCeilsTheFarEdge) {
  EXPECT_EQ(CGRectIntegral(CGRectMake(1.222, 1.3333, 1, 1)), CGRectMake(1, 1, 2, 2));
  EXPECT_EQ(CGRectIntegral(CGRectMake(0.5, 0.5, 10, 10)), CGRectMake(0, 0, 11, 11));
  EXPECT_EQ(CGRectIntegral(CGRectMake(-0.5, -1.5, 1, 1)), CGRectMake(-1, -2, 2, 2));
  EXPECT_EQ(CGRectIntegral(CGRectMake(2, 3, 4, 5)), CGRectMake(2, 3, 4, 5));
  EXPECT_EQ(CGRectIntegral(CGRectMake(2.5, 3.5, -1, -1)), CGRectMake(1, 2, 2, 2));
}

TEST(CGRectIntegral, NullAndInfiniteStayThemselves) {
  EXPECT_TRUE(CGRectIsNull(CGRectIntegral(CGRectNull)));
  EXPECT_TRUE(CGRectIsInfinite(CGRectIntegral(CGRectInfinite)));
}

// ---- containment -----------------------------------------------------------------------------

TEST(CGRectContains, PointsOnTheMinimumEdgeButNotTheMaximum) {
  const CGRect r = CGRectMake(0, 0, 10, 10);
  EXPECT_TRUE(CGRectContainsPoint(r, {0, 0}));
  EXPECT_TRUE(CGRectContainsPoint(r, {9.999, 5}));
  EXPECT_FALSE(CGRectContainsPoint(r, {10, 5}));
  EXPECT_FALSE(CGRectContainsPoint(r, {5, 10}));
  EXPECT_FALSE(CGRectContainsPoint(CGRectNull, {0, 0}));
  EXPECT_TRUE(CGRectContainsPoint(CGRectInfinite, {1e200, -1e200}));
}

TEST(CGRectContains, Rectangles) {
  const CGRect r = CGRectMake(0, 0, 10, 10);
  EXPECT_TRUE(CGRectContainsRect(r, CGRectMake(2, 2, 3, 3)));
  EXPECT_TRUE(CGRectContainsRect(r, r));
  EXPECT_FALSE(CGRectContainsRect(r, CGRectMake(8, 8, 3, 3)));
  EXPECT_TRUE(CGRectContainsRect(CGRectInfinite, r));
  EXPECT_FALSE(CGRectContainsRect(r, CGRectInfinite));
}

// ---- affine transforms -----------------------------------------------------------------------

TEST(CGAffineTransform, Constructors) {
  EXPECT_EQ(CGAffineTransformMakeTranslation(3, 4), CGAffineTransformMake(1, 0, 0, 1, 3, 4));
  EXPECT_EQ(CGAffineTransformMakeScale(2, 5), CGAffineTransformMake(2, 0, 0, 5, 0, 0));
  const CGAffineTransform r = CGAffineTransformMakeRotation(std::numbers::pi / 2);
  expectTransformNear(r, CGAffineTransformMake(0, 1, -1, 0, 0, 0));
  // Positive angles turn counter-clockwise in a y-up space.
  expectPointNear(CGPointApplyAffineTransform({1, 0}, r), {0, 1});
}

TEST(CGAffineTransform, ScaleAppliesBeforeTheExistingTransform) {
  const CGAffineTransform t = CGAffineTransformScale(CGAffineTransformMakeTranslation(10, 0), 2, 2);
  expectPointNear(CGPointApplyAffineTransform({1, 0}, t), {12, 0});
  EXPECT_EQ(t, CGAffineTransformMake(2, 0, 0, 2, 10, 0));
}

TEST(CGAffineTransform, TranslateAppliesBeforeTheExistingTransform) {
  const CGAffineTransform t = CGAffineTransformTranslate(CGAffineTransformMakeScale(2, 3), 10, 1);
  // Translate first: (1, 1) -> (11, 2), then scale: (22, 6).
  expectPointNear(CGPointApplyAffineTransform({1, 1}, t), {22, 6});
  EXPECT_EQ(t, CGAffineTransformMake(2, 0, 0, 3, 20, 3));
}

TEST(CGAffineTransform, RotateAppliesBeforeTheExistingTransform) {
  const CGAffineTransform t = CGAffineTransformRotate(CGAffineTransformMakeTranslation(10, 0), std::numbers::pi / 2);
  // Rotate first: (1, 0) -> (0, 1), then translate: (10, 1).
  expectPointNear(CGPointApplyAffineTransform({1, 0}, t), {10, 1});
}

TEST(CGAffineTransform, ConcatAppliesTheFirstThenTheSecond) {
  const CGAffineTransform translate = CGAffineTransformMakeTranslation(10, 0);
  const CGAffineTransform scale = CGAffineTransformMakeScale(2, 2);
  expectPointNear(CGPointApplyAffineTransform({1, 0}, CGAffineTransformConcat(translate, scale)), {22, 0});
  expectPointNear(CGPointApplyAffineTransform({1, 0}, CGAffineTransformConcat(scale, translate)), {12, 0});
  EXPECT_EQ(CGAffineTransformConcat(CGAffineTransformIdentity, scale), scale);
  EXPECT_EQ(CGAffineTransformConcat(scale, CGAffineTransformIdentity), scale);
}

TEST(CGAffineTransform, InvertUndoesTheTransform) {
  const CGAffineTransform t = CGAffineTransformRotate(
      CGAffineTransformScale(CGAffineTransformMakeTranslation(7, -3), 2, 0.5), 0.3);
  const CGAffineTransform inverse = CGAffineTransformInvert(t);
  expectTransformNear(CGAffineTransformConcat(t, inverse), CGAffineTransformIdentity);
  expectTransformNear(CGAffineTransformConcat(inverse, t), CGAffineTransformIdentity);
  expectPointNear(CGPointApplyAffineTransform(CGPointApplyAffineTransform({5, 9}, t), inverse), {5, 9});
}

TEST(CGAffineTransform, SingularTransformIsReturnedUnchanged) {
  const CGAffineTransform singular = CGAffineTransformMake(1, 2, 2, 4, 5, 6);
  EXPECT_EQ(CGAffineTransformInvert(singular), singular);
  const CGAffineTransform zeroScale = CGAffineTransformMakeScale(0, 3);
  EXPECT_EQ(CGAffineTransformInvert(zeroScale), zeroScale);
}

TEST(CGAffineTransform, IsIdentity) {
  EXPECT_TRUE(CGAffineTransformIsIdentity(CGAffineTransformIdentity));
  EXPECT_TRUE(CGAffineTransformIsIdentity(CGAffineTransformMakeScale(1, 1)));
  EXPECT_TRUE(CGAffineTransformIsIdentity(CGAffineTransformMakeTranslation(0, 0)));
  EXPECT_FALSE(CGAffineTransformIsIdentity(CGAffineTransformMakeTranslation(0, 1e-9)));
  EXPECT_FALSE(CGAffineTransformIsIdentity(CGAffineTransformMakeScale(-1, 1)));
  EXPECT_TRUE(CGAffineTransformEqualToTransform(CGAffineTransformMakeScale(2, 2), CGAffineTransformMakeScale(2, 2)));
}

TEST(CGAffineTransform, SizesIgnoreTranslation) {
  const CGAffineTransform t = CGAffineTransformTranslate(CGAffineTransformMakeScale(2, 3), 100, 100);
  const CGSize s = CGSizeApplyAffineTransform(CGSizeMake(4, 5), t);
  EXPECT_EQ(s.width, 8);
  EXPECT_EQ(s.height, 15);
}

TEST(CGAffineTransform, RectangleBecomesTheBoundingBoxOfItsCorners) {
  const CGRect r = CGRectMake(0, 0, 2, 2);
  expectRectNear(CGRectApplyAffineTransform(r, CGAffineTransformMakeTranslation(3, 4)), CGRectMake(3, 4, 2, 2));
  // A flip gives a positive-size rectangle.
  expectRectNear(CGRectApplyAffineTransform(r, CGAffineTransformMakeScale(-1, 1)), CGRectMake(-2, 0, 2, 2));
  // A 45-degree turn: the corners land on a diamond whose bounding box is wider.
  const double h = std::sqrt(2.0);
  expectRectNear(CGRectApplyAffineTransform(r, CGAffineTransformMakeRotation(std::numbers::pi / 4)),
                 CGRectMake(-h, 0, 2 * h, 2 * h));
}

TEST(CGAffineTransform, NullAndInfiniteRectanglesSurviveTransforms) {
  const CGAffineTransform t = CGAffineTransformRotate(CGAffineTransformMakeScale(3, 3), 0.7);
  EXPECT_TRUE(CGRectIsInfinite(CGRectApplyAffineTransform(CGRectInfinite, t)));
  EXPECT_TRUE(CGRectIsNull(CGRectApplyAffineTransform(CGRectNull, t)));
}

// ---- strings ---------------------------------------------------------------------------------

TEST(NSStringFromGeometry, IntegralValuesPrintWithoutDecimals) {
  EXPECT_EQ(NSStringFromSize(CGSizeMake(512, 512)), "{512, 512}");
  EXPECT_EQ(NSStringFromSize(CGSizeMake(100, 101)), "{100, 101}");
  EXPECT_EQ(NSStringFromSize(CGSizeMake(-3, 0)), "{-3, 0}");
  EXPECT_EQ(NSStringFromPoint(CGPointMake(1, 2)), "{1, 2}");
  EXPECT_EQ(NSStringFromRect(CGRectMake(0, 0, 220, 220)), "{{0, 0}, {220, 220}}");
}

TEST(NSStringFromGeometry, NonIntegralValuesPrintWithSeventeenDigits) {
  EXPECT_EQ(NSStringFromSize(CGSizeMake(215.0 / 3.0, 0.5)), "{71.666666666666671, 0.5}");
  EXPECT_EQ(NSStringFromSize(CGSizeMake(10.000000000000002, 1.25)), "{10.000000000000002, 1.25}");
  EXPECT_EQ(NSStringFromRect(CGRectMake(0.1, 2, 3, 4)), "{{0.10000000000000001, 2}, {3, 4}}");
  // Two hints that differ only slightly print differently, so they make different cache keys.
  EXPECT_NE(NSStringFromSize(CGSizeMake(100, 100)), NSStringFromSize(CGSizeMake(100, 100.0000001)));
}

TEST(NSStringFromGeometry, Transform) {
  EXPECT_EQ(NSStringFromCGAffineTransform(CGAffineTransformMake(1, 0, 0, 1, 10, -2.5)), "[1, 0, 0, 1, 10, -2.5]");
}
