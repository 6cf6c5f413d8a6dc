#ifdef QV_HAVE_IMAGEUNITS
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>
#include <numbers>

#include "CoreImage/CIVector.h"
#include "Filters/QVFilterProportionalCrop.h"
#include "Filters/QVFilterResize.h"
#include "Filters/QVFilterRotate.h"
#include "Filters/QVFilterSquareCrop.h"
#include "PlugInTestSupport.h"

using qvtest::imageOfSize;
using qvtest::imageWithExtent;
using qvtest::outputOf;
using qvtest::plugInFilter;

class GeometryFilters : public qvtest::PlugInTest {};

// ---- Rotate ----

TEST_F(GeometryFilters, RotateByZeroCropsToTheExtentRoundedComponentWise) {
  CIFilterRef rotate = plugInFilter("QVFilterRotate");
  ASSERT_TRUE(rotate);
  rotate->setValue(0.0, kCIInputAngleKey);
  // Origin and size are rounded separately: (0.3, 0.6, 10.4, 10.5) -> (0, 1, 10, 11), so the
  // result is the input cut to x 0.3..10 and y 1..11.1.
  rotate->setValue(imageWithExtent(0.3, 0.6, 10.4, 10.5), kCIInputImageKey);
  const CIImage out = outputOf(rotate);
  ASSERT_TRUE(out);
  const CGRect e = out.extent();
  EXPECT_DOUBLE_EQ(CGRectGetMinX(e), 0.3);
  EXPECT_DOUBLE_EQ(CGRectGetMaxX(e), 10.0);
  EXPECT_DOUBLE_EQ(CGRectGetMinY(e), 1.0);
  EXPECT_DOUBLE_EQ(CGRectGetMaxY(e), 11.1);
}

TEST_F(GeometryFilters, RotateRoundsHalfAwayFromZero) {
  QVFilterRotate rotate;
  rotate.setInputAngle(0.0);
  // (-2.5, 2.5, 4.5, 3.5) rounds to (-3, 3, 5, 4).
  rotate.setInputImage(imageWithExtent(-2.5, 2.5, 4.5, 3.5));
  const CGRect e = rotate.outputImage().extent();
  EXPECT_DOUBLE_EQ(CGRectGetMinX(e), -2.5);
  EXPECT_DOUBLE_EQ(CGRectGetMaxX(e), 2.0);
  EXPECT_DOUBLE_EQ(CGRectGetMinY(e), 3.0);
  EXPECT_DOUBLE_EQ(CGRectGetMaxY(e), 6.0);
}

TEST_F(GeometryFilters, RotateRoundsInSinglePrecision) {
  // 0.49999999999999994 rounds to 0 in double precision but narrows to 0.5f, which rounds to 1.
  QVFilterRotate rotate;
  rotate.setInputAngle(0.0);
  rotate.setInputImage(imageWithExtent(0.49999999999999994, 0, 10, 10));
  const CGRect e = rotate.outputImage().extent();
  EXPECT_EQ(CGRectGetMinX(e), 1.0);
  EXPECT_EQ(CGRectGetMinY(e), 0.0);
}

TEST_F(GeometryFilters, RotateQuarterTurnIsAboutTheOrigin) {
  CIFilterRef rotate = plugInFilter("QVFilterRotate");
  rotate->setValue(imageOfSize(100, 50), kCIInputImageKey);
  rotate->setValue(std::numbers::pi / 2, kCIInputAngleKey);
  const CIImage out = outputOf(rotate);
  ASSERT_TRUE(out);
  // The turned image lies left of the origin.
  EXPECT_RECT_EQ(out.extent(), -50, 0, 50, 100);
}

TEST_F(GeometryFilters, RotateTakesRadiansAsGiven) {
  QVFilterRotate rotate;
  rotate.setInputImage(imageOfSize(100, 50));
  rotate.setInputAngle(90.0);  // radians, not degrees
  const CGRect expected = CGRectApplyAffineTransform(CGRectMake(0, 0, 100, 50), CGAffineTransformMakeRotation(90.0));
  // The turned extent cut to its rectangle rounded component-wise in single precision.
  auto rounded = [](double v) { return double(std::round(float(v))); };
  const CGRect cut = CGRectMake(rounded(expected.origin.x), rounded(expected.origin.y), rounded(expected.size.width),
                                rounded(expected.size.height));
  EXPECT_EQ(rotate.outputImage().extent(), CGRectIntersection(expected, cut));
}

TEST_F(GeometryFilters, RotateNilImageIsNil) {
  QVFilterRotate rotate;
  rotate.setInputAngle(1.0);
  EXPECT_FALSE(rotate.outputImage());
  EXPECT_FALSE(outputOf(plugInFilter("QVFilterRotate")));
}

// ---- Resize ----

namespace {

CIImage resized(const CIImage& image, int edge, double maximum) {
  CIFilterRef resize = plugInFilter("QVFilterResize");
  EXPECT_TRUE(resize);
  if (!resize) return {};
  resize->setValue(image, kCIInputImageKey);
  resize->setValue(edge, "inputEdge");
  resize->setValue(maximum, "inputMaximumExtent");
  return outputOf(resize);
}

}  // namespace

TEST_F(GeometryFilters, ResizeWidthEdge) {
  const CIImage wide = imageOfSize(2000, 500);
  // Scaled by 1000 / 2000: the Lanczos rescale rounds each side of the scaled extent.
  EXPECT_RECT_EQ(resized(wide, 1, 1000).extent(), 0, 0, 1000, 250);
  // Only the width is limited: a tall image passes unchanged, the very same image.
  const CIImage tall = imageOfSize(800, 3000);
  EXPECT_TRUE(resized(tall, 1, 1000) == tall);
}

TEST_F(GeometryFilters, ResizeHeightEdge) {
  const CIImage tall = imageOfSize(800, 3000);
  // Scaled by 1000 / 3000: 800 / 3 = 266.7 rounds to 267.
  EXPECT_RECT_EQ(resized(tall, 2, 1000).extent(), 0, 0, 267, 1000);
  const CIImage wide = imageOfSize(2000, 500);
  EXPECT_TRUE(resized(wide, 2, 1000) == wide);
}

TEST_F(GeometryFilters, ResizeBothEdgesUsesTheLargerFactor) {
  const CIImage big = imageOfSize(2000, 1500);
  // Factors 2 (width) and 1.5 (height): the larger one, 2, wins.
  EXPECT_RECT_EQ(resized(big, 3, 1000).extent(), 0, 0, 1000, 750);
}

TEST_F(GeometryFilters, ResizeBothEdgesPassesWhenOneEdgeIsBelowTheMaximum) {
  // The deliberate asymmetry: 2000 wide is above the maximum, but 800 high is below it.
  const CIImage wide = imageOfSize(2000, 800);
  EXPECT_TRUE(resized(wide, 3, 1000) == wide);
}

namespace {

// Stands in for "CILanczosScaleTransform" while alive, recording the scale of every output
// built through it; the built-in comes back afterwards.
class LanczosSpy {
 public:
  LanczosSpy() : saved_(*CIFilter::registrationForName("CILanczosScaleTransform")) {
    scales().clear();
    CIFilterRegistration spy = saved_;
    spy.make = [] { return CIFilterRef(std::make_shared<SpyFilter>()); };
    CIFilter::registerFilter(spy);
  }
  ~LanczosSpy() { CIFilter::registerFilter(saved_); }
  static std::vector<double>& scales() {
    static std::vector<double> s;
    return s;
  }

 private:
  class SpyFilter : public CIFilter {
   public:
    CIImage outputImage() const override {
      scales().push_back(valueForKey(kCIInputScaleKey).doubleValue());
      return CIImage::fromValue(valueForKey(kCIInputImageKey));
    }
  };
  CIFilterRegistration saved_;
};

}  // namespace

TEST_F(GeometryFilters, ResizeScalesThroughTheLanczosBuiltin) {
  LanczosSpy spy;
  (void)resized(imageOfSize(2000, 500), 1, 1000);
  (void)resized(imageOfSize(2000, 1500), 3, 1000);
  (void)resized(imageOfSize(800, 3000), 1, 1000);  // passes unchanged: not scaled at all
  EXPECT_EQ(LanczosSpy::scales(), (std::vector<double>{0.5, 0.5}));
}

TEST_F(GeometryFilters, ResizeExactlyAtTheMaximumStillScalesAtOne) {
  {
    LanczosSpy spy;
    (void)resized(imageOfSize(1000, 1000), 3, 1000);
    EXPECT_EQ(LanczosSpy::scales(), std::vector<double>{1.0});
  }
  const CIImage out = resized(imageOfSize(1000, 1000), 3, 1000);
  ASSERT_TRUE(out);
  EXPECT_RECT_EQ(out.extent(), 0, 0, 1000, 1000);
}

TEST_F(GeometryFilters, ResizeEdgeZeroAlwaysPassesThroughTheScaleAtOne) {
  {
    LanczosSpy spy;
    (void)resized(imageOfSize(2000, 1500), 0, 1000);
    (void)resized(imageOfSize(10, 20), 0, 1000);
    EXPECT_EQ(LanczosSpy::scales(), (std::vector<double>{1.0, 1.0}));
  }
  for (CGSize s : {CGSizeMake(2000, 1500), CGSizeMake(10, 20)}) {
    const CIImage out = resized(imageOfSize(s.width, s.height), 0, 1000);
    ASSERT_TRUE(out);
    EXPECT_RECT_EQ(out.extent(), 0, 0, s.width, s.height);
  }
}

TEST_F(GeometryFilters, ResizeZeroMaximumScalesByZero) {
  LanczosSpy spy;
  (void)resized(imageOfSize(200, 100), 3, 0);  // infinite factors: no guard
  EXPECT_EQ(LanczosSpy::scales(), std::vector<double>{0.0});
}

TEST_F(GeometryFilters, ResizeNeverEnlarges) {
  const CIImage small = imageOfSize(100, 50);
  EXPECT_TRUE(resized(small, 3, 1000) == small);
  EXPECT_TRUE(resized(small, 1, 1000) == small);
}

TEST_F(GeometryFilters, ResizeNilImageReturnsTheNilInput) {
  EXPECT_FALSE(resized(CIImage(), 3, 1000));
  EXPECT_FALSE(resized(CIImage(), 0, 1000));
  // 0 / 0 factors are not numbers and pass the test; the scale of nil is still nil.
  EXPECT_FALSE(resized(CIImage(), 3, 0));
}

TEST_F(GeometryFilters, ResizeZeroMaximumIsNotGuarded) {
  // Infinite factors give a scale of 0: no guard, no crash.
  const CIImage image = imageOfSize(200, 100);
  const CIImage out = resized(image, 3, 0);
  EXPECT_FALSE(out == image);
}

TEST_F(GeometryFilters, ResizeDefaultsFromTheDescription) {
  CIFilterRef resize = plugInFilter("QVFilterResize");
  ASSERT_TRUE(resize);
  EXPECT_EQ(resize->valueForKey("inputEdge").integerValue(), 3);
  EXPECT_EQ(resize->valueForKey("inputMaximumExtent").doubleValue(), 200.0);
  const CIImage big = imageOfSize(2000, 4000);
  resize->setValue(big, kCIInputImageKey);
  EXPECT_RECT_EQ(outputOf(resize).extent(), 0, 0, 100, 200);
  // The gallery photo's size (320 × 240) is brought down to 200 × 150.
  resize->setValue(imageOfSize(320, 240), kCIInputImageKey);
  EXPECT_RECT_EQ(outputOf(resize).extent(), 0, 0, 200, 150);
}

TEST_F(GeometryFilters, RotateByItsDefaultTurnsThePhotoSlightly) {
  CIFilterRef rotate = plugInFilter("QVFilterRotate");
  ASSERT_TRUE(rotate);
  EXPECT_EQ(rotate->attributes()[kCIInputAngleKey][kCIAttributeIdentity].doubleValue(), 0.0);
  rotate->setValue(imageOfSize(320, 240), kCIInputImageKey);
  // The turned photo's bounding box (about -20.9, 0, 339.7 × 267.0) lies inside its rounded
  // rectangle (-21, 0, 340 × 267), so the crop keeps all of it.
  const CGRect turned =
      CGRectApplyAffineTransform(CGRectMake(0, 0, 320, 240), CGAffineTransformMakeRotation(0.08726646259971647));
  EXPECT_EQ(outputOf(rotate).extent(), turned) << NSStringFromRect(outputOf(rotate).extent());
  EXPECT_EQ(CGRectIntegral(turned), CGRectMake(-21, 0, 340, 267));
}

// ---- Square crop ----

TEST_F(GeometryFilters, SquareCropKeepsTheCentredSquare) {
  CIFilterRef crop = plugInFilter("QVFilterSquareCrop");
  ASSERT_TRUE(crop);
  crop->setValue(imageOfSize(300, 200), kCIInputImageKey);
  EXPECT_RECT_EQ(outputOf(crop).extent(), 50, 0, 200, 200);
}

TEST_F(GeometryFilters, SquareCropPortraitAndOffsetExtent) {
  QVFilterSquareCrop crop;
  crop.setInputImage(imageWithExtent(10, 20, 100, 300));
  EXPECT_RECT_EQ(crop.outputImage().extent(), 10, 120, 100, 100);
}

TEST_F(GeometryFilters, SquareCropDoesNotRound) {
  QVFilterSquareCrop crop;
  crop.setInputImage(imageOfSize(301, 200));
  EXPECT_RECT_EQ(crop.outputImage().extent(), 50.5, 0, 200, 200);
}

TEST_F(GeometryFilters, SquareCropNilImageIsNil) {
  QVFilterSquareCrop crop;
  EXPECT_FALSE(crop.outputImage());
}

// ---- Proportional crop ----

namespace {

CIFilterRef proportionalCrop(const CIImage& image) {
  CIFilterRef crop = plugInFilter("QVFilterProportionalCrop");
  EXPECT_TRUE(crop);
  if (crop) crop->setValue(image, kCIInputImageKey);
  return crop;
}

}  // namespace

TEST_F(GeometryFilters, ProportionalCropDefaultsKeepTheWholeExtent) {
  CIFilterRef crop = proportionalCrop(imageWithExtent(7, 9, 101, 55));
  ASSERT_TRUE(crop);
  EXPECT_TRUE(CIVector::fromValue(crop->valueForKey("inputExtent"))->isEqual(*CIVector::vectorWithX(0, 0, 1, 1)));
  EXPECT_TRUE(CIVector::fromValue(crop->valueForKey("inputRectangle"))->isEqual(*CIVector::vectorWithX(0, 0, 1, 1)));
  EXPECT_RECT_EQ(outputOf(crop).extent(), 7, 9, 101, 55);
}

TEST_F(GeometryFilters, ProportionalCropRoundsOriginUpAndSizeDown) {
  CIFilterRef crop = proportionalCrop(imageOfSize(101, 101));
  crop->setValue(CIVector::vectorWithX(0.25, 0.25, 0.5, 0.5), "inputRectangle");
  // x = ceil(25.25) = 26, width = floor(50.5) = 50.
  EXPECT_RECT_EQ(outputOf(crop).extent(), 26, 26, 50, 50);
}

TEST_F(GeometryFilters, ProportionalCropInAReferenceFrame) {
  QVFilterProportionalCrop crop;
  crop.setInputImage(imageWithExtent(10, 20, 200, 100));
  crop.setInputExtent(CIVector::vectorWithX(100, 100, 400, 200));
  crop.setInputRectangle(CIVector::vectorWithX(200, 150, 100, 100));
  // x = ceil(0.25 * 200) + 10 = 60, y = ceil(0.25 * 100) + 20 = 45, w = 50, h = 50.
  EXPECT_RECT_EQ(crop.outputImage().extent(), 60, 45, 50, 50);
}

TEST_F(GeometryFilters, ProportionalCropMissingVectorReturnsTheInput) {
  const CIImage image = imageOfSize(50, 50);
  QVFilterProportionalCrop crop;
  crop.setInputImage(image);
  crop.setInputRectangle(CIVector::vectorWithX(0, 0, 0.5, 0.5));
  EXPECT_TRUE(crop.outputImage() == image);  // no extent
  crop.setInputExtent(CIVector::vectorWithX(0, 0, 1, 1));
  crop.setInputRectangle(nullptr);
  EXPECT_TRUE(crop.outputImage() == image);  // no rectangle
}

TEST_F(GeometryFilters, ProportionalCropZeroFrameIsNotGuarded) {
  QVFilterProportionalCrop crop;
  crop.setInputImage(imageOfSize(50, 50));
  crop.setInputExtent(CIVector::vectorWithX(0, 0, 0, 0));
  crop.setInputRectangle(CIVector::vectorWithX(0, 0, 1, 1));
  (void)crop.outputImage();  // divides by zero; must neither crash nor throw
  SUCCEED();
}

TEST_F(GeometryFilters, ProportionalCropNilImageIsNil) {
  QVFilterProportionalCrop crop;
  crop.setInputExtent(CIVector::vectorWithX(0, 0, 1, 1));
  crop.setInputRectangle(CIVector::vectorWithX(0, 0, 1, 1));
  EXPECT_FALSE(crop.outputImage());
}

// ---- Key lists and attributes ----

TEST_F(GeometryFilters, InputKeysInOrder) {
  using Keys = std::vector<std::string>;
  EXPECT_EQ(plugInFilter("QVFilterRotate")->inputKeys(), (Keys{"inputImage", "inputAngle"}));
  EXPECT_EQ(plugInFilter("QVFilterResize")->inputKeys(), (Keys{"inputImage", "inputEdge", "inputMaximumExtent"}));
  EXPECT_EQ(plugInFilter("QVFilterSquareCrop")->inputKeys(), (Keys{"inputImage"}));
  EXPECT_EQ(plugInFilter("QVFilterProportionalCrop")->inputKeys(),
            (Keys{"inputImage", "inputExtent", "inputRectangle"}));
}

TEST_F(GeometryFilters, OnlyProportionalCropDescribesItsOwnInputs) {
  EXPECT_TRUE(plugInFilter("QVFilterRotate")->customAttributes().isNil());
  EXPECT_TRUE(plugInFilter("QVFilterResize")->customAttributes().isNil());
  EXPECT_TRUE(plugInFilter("QVFilterSquareCrop")->customAttributes().isNil());

  const Value custom = plugInFilter("QVFilterProportionalCrop")->customAttributes();
  ASSERT_TRUE(custom.dictionary());
  EXPECT_EQ(custom.dictionary()->size(), 2u);
  for (const char* key : {"inputExtent", "inputRectangle"}) {
    const Value entry = custom[key];
    ASSERT_TRUE(entry.dictionary()) << key;
    EXPECT_EQ(entry.dictionary()->size(), 2u) << key;  // default and identity, nothing else
    const CIVector unit({0, 0, 1, 1});
    EXPECT_TRUE(CIVector::fromValue(entry[kCIAttributeDefault])->isEqual(unit)) << key;
    EXPECT_TRUE(CIVector::fromValue(entry[kCIAttributeIdentity])->isEqual(unit)) << key;
  }
}

TEST_F(GeometryFilters, RotateDefaultsFromTheDescription) {
  CIFilterRef rotate = plugInFilter("QVFilterRotate");
  ASSERT_TRUE(rotate);
  EXPECT_EQ(rotate->valueForKey("inputAngle").doubleValue(), 0.08726646259971647);  // a slight turn: 5 degrees
  const Value angle = rotate->attributes()["inputAngle"];
  EXPECT_EQ(angle[kCIAttributeSliderMin].doubleValue(), -std::numbers::pi);
  EXPECT_EQ(angle[kCIAttributeSliderMax].doubleValue(), std::numbers::pi);
  EXPECT_EQ(*angle[kCIAttributeType].string(), std::string(kCIAttributeTypeAngle));
}
#endif
