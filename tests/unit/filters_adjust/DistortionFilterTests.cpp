// QVFilterPixellate and QVFilterBumpDistortion: keys, attributes, the graphs they build and the
// extents they return.
#include <gtest/gtest.h>

#include "AdjustTestSupport.h"
#include "Filters/QVFilterBumpDistortion.h"
#include "Filters/QVFilterPixellate.h"

using namespace qvtest;

namespace {

class DistortionFilters : public BundleTest {};

// The pixellate graph wired by hand: the image scaled by (sx, sy), its edges extended, then
// squares of `scale` on `center`, cut to the input's extent.
CIImage handPixellated(const CIImage& image, double sx, double sy, const Value& center, const Value& scale) {
  const CIImage clamped = builtinOutput(
      "CIAffineClamp", {{kCIInputImageKey, image},
                        {kCIInputTransformKey, Value(CGAffineTransformMakeScale(sx, sy))}});
  return builtinOutput("CIPixellate", {{kCIInputImageKey, clamped}, {kCIInputCenterKey, center}, {kCIInputScaleKey, scale}})
      .imageByCroppingToRect(image.extent());
}

}  // namespace

// ---- Pixellate ----

TEST_F(DistortionFilters, PixellateKeys) {
  CIFilterRef f = makeFilter("QVFilterPixellate");
  ASSERT_TRUE(f);
  EXPECT_EQ(f->inputKeys(), (std::vector<std::string>{kCIInputImageKey, "inputCenter", "inputScale"}));
  EXPECT_EQ(f->outputKeys(), (std::vector<std::string>{kCIOutputImageKey}));
}

TEST_F(DistortionFilters, PixellateDescribesScaleAndCentre) {
  QVFilterPixellate f;
  const Value attrs = f.customAttributes();
  ASSERT_TRUE(attrs.dictionary());
  EXPECT_EQ(keysOf(*attrs.dictionary()), (std::vector<std::string>{"inputCenter", "inputScale"}));

  const Dictionary* scale = attributeEntry(attrs, "inputScale");
  ASSERT_TRUE(scale);
  EXPECT_EQ(keysOf(*scale), (std::vector<std::string>{kCIAttributeDefault, kCIAttributeIdentity, kCIAttributeMin,
                                                       kCIAttributeSliderMax, kCIAttributeSliderMin,
                                                       kCIAttributeType}));
  for (const auto& [key, expected] : std::vector<std::pair<std::string, std::int64_t>>{
           {kCIAttributeDefault, 8}, {kCIAttributeIdentity, 1}, {kCIAttributeMin, 1},
           {kCIAttributeSliderMin, 1}, {kCIAttributeSliderMax, 100}}) {
    const Value v = scale->at(key);
    EXPECT_TRUE(v.isInteger()) << key;
    EXPECT_EQ(v.integerValue(), expected) << key;
  }
  EXPECT_EQ(scale->at(kCIAttributeType), Value(kCIAttributeTypeDistance));

  const Dictionary* center = attributeEntry(attrs, "inputCenter");
  ASSERT_TRUE(center);
  EXPECT_EQ(keysOf(*center), (std::vector<std::string>{kCIAttributeDefault}));
  EXPECT_EQ(center->at(kCIAttributeDefault), vec(25, 25));
}

TEST_F(DistortionFilters, PixellateNilImageGivesNil) {
  CIFilterRef f = makeFilter("QVFilterPixellate");
  EXPECT_FALSE(filterOutput(f));
}

TEST_F(DistortionFilters, PixellateWithOnlyAnImageUsesSquaresOf8AlignedOn25) {
  const CIImage image = makeTestImage(64, 48);
  CIFilterRef bare = CIFilter::filterWithName("QVFilterPixellate");  // no setDefaults
  ASSERT_TRUE(bare);
  bare->setValue(image, kCIInputImageKey);
  const CIImage out = filterOutput(bare);
  ASSERT_TRUE(out);
  const CGRect r = image.extent();
  EXPECT_SAME_PIXELS(out, handPixellated(image, 1, 1, vec(25, 25), Value(8)), r, 0.0f);
  // Not some other grid: squares of 8 on (0, 0) differ.
  EXPECT_DIFFERENT_PIXELS(out, handPixellated(image, 1, 1, vec(0, 0), Value(8)), r);
  // The same as with the defaults set.
  CIFilterRef withDefaults = makeFilter("QVFilterPixellate");
  withDefaults->setValue(image, kCIInputImageKey);
  EXPECT_SAME_PIXELS(filterOutput(withDefaults), out, r, 0.0f);
}

TEST_F(DistortionFilters, PixellateClampTransformTruncatesTheFactors) {
  // (8 + 5) / 5 = 2.6 -> 2 on both axes.
  const CGAffineTransform small = QVFilterPixellateClampTransform(CGRectMake(0, 0, 5, 5), 8);
  EXPECT_EQ(small.a, 2.0);
  EXPECT_EQ(small.d, 2.0);
  EXPECT_EQ(small.b, 0.0);
  EXPECT_EQ(small.c, 0.0);
  EXPECT_EQ(small.tx, 0.0);
  EXPECT_EQ(small.ty, 0.0);
  // (99 + 100) / 100 = 1.99 -> 1: the identity.
  EXPECT_TRUE(CGAffineTransformIsIdentity(QVFilterPixellateClampTransform(CGRectMake(0, 0, 100, 100), 99)));
  // Each axis on its own: (10 + 4) / 4 = 3.5 -> 3 and (10 + 200) / 200 = 1.05 -> 1.
  const CGAffineTransform mixed = QVFilterPixellateClampTransform(CGRectMake(7, 9, 4, 200), 10);
  EXPECT_EQ(mixed.a, 3.0);
  EXPECT_EQ(mixed.d, 1.0);
}

TEST_F(DistortionFilters, PixellateOfA5x5ImageWithScale8ClampsTheImageScaledBy2) {
  const CIImage image = makeTestImage(5, 5);
  CIFilterRef f = makeFilter("QVFilterPixellate");
  f->setValue(image, kCIInputImageKey);
  f->setValue(8, kCIInputScaleKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), CGRectMake(0, 0, 5, 5));
  EXPECT_SAME_PIXELS(out, handPixellated(image, 2, 2, vec(25, 25), Value(8)), image.extent(), 0.0f);
  EXPECT_DIFFERENT_PIXELS(out, handPixellated(image, 1, 1, vec(25, 25), Value(8)), image.extent());
}

TEST_F(DistortionFilters, PixellateOfA100x100ImageWithScale99KeepsTheIdentity) {
  const CIImage image = makeTestImage(100, 100);
  CIFilterRef f = makeFilter("QVFilterPixellate");
  f->setValue(image, kCIInputImageKey);
  f->setValue(99, kCIInputScaleKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_SAME_PIXELS(out, handPixellated(image, 1, 1, vec(25, 25), Value(99)), image.extent(), 0.0f);
}

TEST_F(DistortionFilters, PixellateHandsOnTheScaleAsItStands) {
  // 8.6 squares, not 8: the integer is only for the clamp transform.
  const CIImage image = makeTestImage(80, 60);
  CIFilterRef f = makeFilter("QVFilterPixellate");
  f->setValue(image, kCIInputImageKey);
  f->setValue(8.6, kCIInputScaleKey);
  f->setValue(vec(3, 4), kCIInputCenterKey);
  const CIImage out = filterOutput(f);
  EXPECT_SAME_PIXELS(out, handPixellated(image, 1, 1, vec(3, 4), Value(8.6)), image.extent(), 0.0f);
}

TEST_F(DistortionFilters, PixellateResultHasTheInputExtentAndOpaqueBorderSquares) {
  const CIImage image = makeTestImage(37, 23, CGPointMake(10.5, -20));
  CIFilterRef f = makeFilter("QVFilterPixellate");
  f->setValue(image, kCIInputImageKey);
  f->setValue(16, kCIInputScaleKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), image.extent());
  // Squares that straddle the border are filled from edge pixels: opaque everywhere.
  const auto px = pixels(out, CGRectMake(11, -20, 36, 23));
  for (std::size_t i = 3; i < px.size(); i += 4) ASSERT_NEAR(px[i], 1.0f, 1e-5f) << "pixel " << i / 4;
}

// ---- Bump distortion ----

TEST_F(DistortionFilters, BumpKeysAndAttributes) {
  CIFilterRef f = makeFilter("QVFilterBumpDistortion");
  ASSERT_TRUE(f);
  EXPECT_EQ(f->inputKeys(),
            (std::vector<std::string>{kCIInputImageKey, kCIInputCenterKey, kCIInputRadiusKey, kCIInputScaleKey}));
  QVFilterBumpDistortion bump;
  const Value attrs = bump.customAttributes();
  ASSERT_TRUE(attrs.dictionary());
  EXPECT_EQ(keysOf(*attrs.dictionary()), (std::vector<std::string>{kCIInputCenterKey}));
  const Dictionary* center = attributeEntry(attrs, kCIInputCenterKey);
  ASSERT_TRUE(center);
  EXPECT_EQ(keysOf(*center), (std::vector<std::string>{kCIAttributeDefault, kCIAttributeMax, kCIAttributeMin}));
  EXPECT_EQ(center->at(kCIAttributeDefault), vec(0.5, 0.5));
  EXPECT_EQ(center->at(kCIAttributeMin), vec(0, 0));
  EXPECT_EQ(center->at(kCIAttributeMax), vec(1, 1));
  // Radius and scale come from the bundle's description, with a visible default.
  EXPECT_GT(f->valueForKey(kCIInputRadiusKey).doubleValue(), 0.0);
  EXPECT_NE(f->valueForKey(kCIInputScaleKey).doubleValue(), 0.0);
}

TEST_F(DistortionFilters, BumpNilImageGivesNil) { EXPECT_FALSE(filterOutput(makeFilter("QVFilterBumpDistortion"))); }

TEST_F(DistortionFilters, BumpWithoutACentreBulgesAboutTheMiddleWhereverTheExtentLies) {
  const CIImage image = makeTestImage(100, 50, CGPointMake(10, 20));
  for (bool setDefaults : {false, true}) {
    CIFilterRef f = CIFilter::filterWithName("QVFilterBumpDistortion");
    if (setDefaults) f->setDefaults();
    f->setValue(image, kCIInputImageKey);
    f->setValue(30.0, kCIInputRadiusKey);
    f->setValue(0.7, kCIInputScaleKey);
    const CIImage out = filterOutput(f);
    ASSERT_TRUE(out);
    const CIImage expected = builtinOutput("CIBumpDistortion", {{kCIInputImageKey, image},
                                                                {kCIInputCenterKey, vec(60, 45)},
                                                                {kCIInputRadiusKey, 30.0},
                                                                {kCIInputScaleKey, 0.7}});
    EXPECT_SAME_PIXELS(out, expected.imageByCroppingToRect(image.extent()), image.extent(), 0.0f);
    // The bump is really there.
    EXPECT_DIFFERENT_PIXELS(out, image, image.extent());
  }
}

TEST_F(DistortionFilters, BumpCentreIsInProportionsAndRadiusAndScaleGoAsTheyStand) {
  const CIImage image = makeTestImage(80, 40, CGPointMake(-5, 3));
  CIFilterRef f = makeFilter("QVFilterBumpDistortion");
  f->setValue(image, kCIInputImageKey);
  f->setValue(vec(0.25, 0.75), kCIInputCenterKey);
  f->setValue(-0.4, kCIInputScaleKey);
  f->setValue(17.5, kCIInputRadiusKey);
  // (-5 + 80 * 0.25, 3 + 40 * 0.75) = (15, 33)
  const CIImage expected = builtinOutput("CIBumpDistortion", {{kCIInputImageKey, image},
                                                              {kCIInputCenterKey, vec(15, 33)},
                                                              {kCIInputRadiusKey, 17.5},
                                                              {kCIInputScaleKey, -0.4}});
  EXPECT_SAME_PIXELS(filterOutput(f), expected.imageByCroppingToRect(image.extent()), image.extent(), 0.0f);
}

TEST_F(DistortionFilters, BumpResultHasExactlyTheInputExtent) {
  const CIImage image = makeTestImage(33, 21, CGPointMake(2.5, 7));
  CIFilterRef f = makeFilter("QVFilterBumpDistortion");
  f->setValue(image, kCIInputImageKey);
  const CIImage out = filterOutput(f);
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), image.extent());
}
