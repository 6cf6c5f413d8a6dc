#include <gtest/gtest.h>

#include <cmath>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/ImageNode.h"
#include "RenderSupport.h"

TEST(CIImageExtent, NilImageHasZeroExtentAndNilResults) {
  CIImage nil;
  EXPECT_TRUE(nil.isNil());
  EXPECT_EQ(nil.extent(), CGRectZero);
  EXPECT_TRUE(nil.imageByApplyingTransform(CGAffineTransformMakeScale(2, 2)).isNil());
  EXPECT_TRUE(nil.imageByCroppingToRect(CGRectMake(0, 0, 5, 5)).isNil());
  EXPECT_TRUE(nil.imageByClampingToExtent().isNil());
  EXPECT_TRUE(CIImage::imageWithColor(nullptr).isNil());
  EXPECT_TRUE(CIImage::fromValue(Value()).isNil());
}

TEST(CIImageExtent, BitmapExtentIsOriginAndSize) {
  auto img = makeTestImage(30, 20, CGPointMake(5, -7));
  EXPECT_EQ(img.extent(), CGRectMake(5, -7, 30, 20));
}

TEST(CIImageExtent, TransformGivesBoundingBox) {
  auto img = makeTestImage(40, 20);
  auto scaled = img.imageByApplyingTransform(CGAffineTransformMakeScale(0.5, 3));
  EXPECT_EQ(scaled.extent(), CGRectMake(0, 0, 20, 60));
  auto rot = img.imageByApplyingTransform(CGAffineTransformMakeRotation(M_PI / 4));
  const CGRect e = rot.extent();
  const double s = std::sqrt(0.5);
  EXPECT_NEAR(CGRectGetMinX(e), -20 * s, 1e-9);
  EXPECT_NEAR(CGRectGetWidth(e), 60 * s, 1e-9);
  EXPECT_NEAR(CGRectGetHeight(e), 60 * s, 1e-9);
  EXPECT_EQ(rot.extent(), CGRectApplyAffineTransform(img.extent(), CGAffineTransformMakeRotation(M_PI / 4)));
}

TEST(CIImageExtent, IdentityTransformIsTheSameImage) {
  auto img = makeTestImage(8, 8);
  EXPECT_EQ(img.imageByApplyingTransform(CGAffineTransformIdentity), img);
}

TEST(CIImageExtent, CropIntersects) {
  auto img = makeTestImage(40, 20);
  EXPECT_EQ(img.imageByCroppingToRect(CGRectMake(10, 5, 100, 100)).extent(), CGRectMake(10, 5, 30, 15));
  EXPECT_EQ(img.imageByCroppingToRect(CGRectMake(2.5, 3.25, 4, 4)).extent(), CGRectMake(2.5, 3.25, 4, 4));
  auto disjoint = img.imageByCroppingToRect(CGRectMake(100, 100, 5, 5));
  EXPECT_FALSE(disjoint.isNil());
  EXPECT_TRUE(CGRectIsEmpty(disjoint.extent()));
  // Cropping to a rectangle that holds the whole extent changes nothing.
  EXPECT_EQ(img.imageByCroppingToRect(CGRectInfinite), img);
  EXPECT_EQ(img.imageByCroppingToRect(CGRectMake(-1, -1, 50, 50)), img);
}

TEST(CIImageExtent, InfiniteStaysInfiniteUntilCropped) {
  auto red = CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0));
  EXPECT_TRUE(CGRectIsInfinite(red.extent()));
  EXPECT_TRUE(CGRectIsInfinite(red.imageByApplyingTransform(CGAffineTransformMakeScale(3, 2)).extent()));
  EXPECT_TRUE(CGRectIsInfinite(red.imageByApplyingTransform(CGAffineTransformMakeTranslation(7, 1)).extent()));
  auto cropped = red.imageByCroppingToRect(CGRectMake(1, 2, 3, 4));
  EXPECT_EQ(cropped.extent(), CGRectMake(1, 2, 3, 4));
  auto clamped = makeTestImage(4, 4).imageByClampingToExtent();
  EXPECT_TRUE(CGRectIsInfinite(clamped.extent()));
  EXPECT_EQ(clamped.imageByCroppingToRect(CGRectMake(-10, -10, 30, 30)).extent(), CGRectMake(-10, -10, 30, 30));
}

TEST(CIImageExtent, EmptyImage) {
  auto e = CIImage::emptyImage();
  EXPECT_FALSE(e.isNil());
  EXPECT_TRUE(CGRectIsEmpty(e.extent()));
  EXPECT_TRUE(CGRectIsEmpty(e.imageByApplyingTransform(CGAffineTransformMakeScale(2, 2)).extent()));
  EXPECT_TRUE(CGRectIsEmpty(e.imageByClampingToExtent().extent()));
}

TEST(CIImageExtent, SingularTransformGivesEmptyImage) {
  auto img = makeTestImage(4, 4);
  EXPECT_TRUE(CGRectIsEmpty(img.imageByApplyingTransform(CGAffineTransformMakeScale(0, 1)).extent()));
}

TEST(CIImageExtent, ValueRoundTripAndDescription) {
  auto img = makeTestImage(4, 4);
  Value v = img;
  EXPECT_EQ(v.className(), "CIImage");
  EXPECT_EQ(CIImage::fromValue(v), img);
  EXPECT_NE(img.node()->description().find("bitmap"), std::string::npos);
}

TEST(CIImageExtent, ImageWithRGBA8) {
  const std::uint8_t px[] = {255, 0, 0, 255, 0, 255, 0, 128, 0, 0, 0, 0, 0, 0, 0, 0};
  auto img = CIImage::imageWithRGBA8(px, 2, 1, 16, CGPointMake(3, 4));
  EXPECT_EQ(img.extent(), CGRectMake(3, 4, 2, 1));
  auto p = pixelAt(img, 4, 4, false);
  EXPECT_NEAR(p[1], 128.0f / 255.0f, 1e-6);  // green 1, premultiplied by 128/255
  EXPECT_NEAR(p[3], 128.0f / 255.0f, 1e-6);
  EXPECT_TRUE(CIImage::imageWithRGBA8(px, 2, 1, 4).isNil());  // rows shorter than the width
}

TEST(PixelRect, CoveringAndCentres) {
  EXPECT_EQ(PixelRect::covering(CGRectMake(1.2, 1.5, 1, 1)), (PixelRect{1, 1, 2, 2}));
  EXPECT_TRUE(PixelRect::covering(CGRectNull).empty());
  EXPECT_TRUE(PixelRect::covering(CGRectMake(3, 3, 0, 5)).empty());
  const PixelRect inf = PixelRect::covering(CGRectInfinite);
  EXPECT_EQ(inf.x, -PixelRect::kPixelLimit);
  EXPECT_EQ(inf.maxX(), PixelRect::kPixelLimit);
  EXPECT_EQ(PixelRect::centresInside(CGRectMake(0.4, 0, 2.2, 1)), (PixelRect{0, 0, 3, 1}));
  EXPECT_EQ(PixelRect::centresInside(CGRectMake(0.4, 0, 2.0, 1)), (PixelRect{0, 0, 2, 1}));
  EXPECT_EQ(PixelRect::centresInside(CGRectMake(0.6, 0, 1.0, 1)), (PixelRect{1, 0, 1, 1}));
  EXPECT_TRUE(PixelRect::centresInside(CGRectMake(0.6, 0, 0.8, 1)).empty());
  const PixelRect a{0, 0, 4, 4}, b{2, 2, 4, 4};
  EXPECT_EQ(a.intersection(b), (PixelRect{2, 2, 2, 2}));
  EXPECT_EQ(a.unionWith(b), (PixelRect{0, 0, 6, 6}));
  EXPECT_EQ(a.unionWith(PixelRect{}), a);
  EXPECT_TRUE(a.intersection(PixelRect{10, 10, 1, 1}).empty());
}
